// The detection side's one log macro: module "support", the calling
// function as "Class::method", the source path and line filled in.
#pragma once

#include <cstdint>

#include "commonlib/zeph_commonlib.h"

enum : int { NT_LOG_ERROR = 0, NT_LOG_WARN = 1, NT_LOG_INFO = 2, NT_LOG_DEBUG = 3 };

#define NT_LOG(level, ...)                                                                                       \
    do {                                                                                                         \
        if (zeph_log_enabled(level)) {                                                                           \
            char nt_log_fn_[128];                                                                                \
            DoLog("support", (level), 0, zeph_log_func_name(__PRETTY_FUNCTION__, nt_log_fn_, sizeof nt_log_fn_), \
                  __FILE__, __LINE__, __VA_ARGS__);                                                              \
        }                                                                                                        \
    } while (0)

#define NT_LOGE(...) NT_LOG(NT_LOG_ERROR, __VA_ARGS__)
#define NT_LOGW(...) NT_LOG(NT_LOG_WARN, __VA_ARGS__)
#define NT_LOGI(...) NT_LOG(NT_LOG_INFO, __VA_ARGS__)
#define NT_LOGD(...) NT_LOG(NT_LOG_DEBUG, __VA_ARGS__)

// The low 32 bits of an address, for the "%x" of a log line that names an
// object or a callback.
template <typename P> inline uint32_t nt_log_addr(P p) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
}
