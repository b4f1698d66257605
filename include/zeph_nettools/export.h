/* Visibility of the library's exported functions. */
#ifndef ZEPH_NETTOOLS_EXPORT_H
#define ZEPH_NETTOOLS_EXPORT_H

#if defined(__GNUC__)
#define ZEPH_API __attribute__((visibility("default")))
#else
#define ZEPH_API
#endif

#ifdef __cplusplus
#define ZEPH_EXTERN_C_BEGIN extern "C" {
#define ZEPH_EXTERN_C_END }
#else
#define ZEPH_EXTERN_C_BEGIN
#define ZEPH_EXTERN_C_END
#endif

#endif
