// Log lines of the runtime that name a function other than the one they are
// written in (a step logs under the name of the operation it belongs to).
// Any thread.
#pragma once

#include "inc/net_tools_log.h"

#define NT_LOG_AS(level, function, ...)                                  \
    do {                                                                 \
        if (zeph_log_enabled(level)) {                                   \
            DoLog("support", (level), 0, (function), __FILE__, __LINE__, \
                  __VA_ARGS__);                                          \
        }                                                                \
    } while (0)
