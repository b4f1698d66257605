// Bounds-checked copies and formatting. 0 is success; on failure the
// destination is cleared where possible and a non-zero code comes back.
#pragma once

#include <cstddef>

int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count);
int memset_s(void* dest, size_t dest_max, int c, size_t count);
int memmove_s(void* dest, size_t dest_max, const void* src, size_t count);
int strcpy_s(char* dest, size_t dest_max, const char* src);
int strncpy_s(char* dest, size_t dest_max, const char* src, size_t count);
// Number of characters written, or -1 when the text does not fit (the
// buffer then holds the empty text) or arguments are bad.
int sprintf_s(char* dest, size_t dest_max, const char* format, ...) __attribute__((format(printf, 3, 4)));
int snprintf_s(char* dest, size_t dest_max, size_t count, const char* format, ...) __attribute__((format(printf, 4, 5)));
