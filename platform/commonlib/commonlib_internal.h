// Private helpers shared by the files of the common library.
#pragma once

#include <cstdint>
#include <string>

#include "commonlib/zeph_commonlib.h"

// The common library logs under module "support" like the detection side.
#define CL_LOG(level, ...)                                                                                   \
    do {                                                                                                     \
        if (zeph_log_enabled(level)) {                                                                       \
            char cl_log_fn_[128];                                                                            \
            DoLog("support", (level), 0, zeph_log_func_name(__PRETTY_FUNCTION__, cl_log_fn_, sizeof cl_log_fn_), \
                  __FILE__, __LINE__, __VA_ARGS__);                                                          \
        }                                                                                                    \
    } while (0)
#define CL_LOGW(...) CL_LOG(1, __VA_ARGS__)
#define CL_LOGI(...) CL_LOG(2, __VA_ARGS__)

namespace zeph_commonlib {

// A consistent copy of the host's proxy setting.
struct ProxySetting {
    bool configured = false;
    uint32_t addr = 0; // network order
    uint16_t port = 0; // host order
    std::string user;  // empty: no credentials
    std::string password;
};
ProxySetting proxy_setting();

// Dotted text of a network-order address.
constexpr size_t kIpv4TextSize = 16; // "255.255.255.255" and its NUL
std::string ipv4_text(uint32_t be_addr);

// Caller text checked before it may enter a protocol line or a resolver.
// A host: a name or dotted address of 1 to 253 bytes of letters, digits,
// '.', '-' and '_' (no blank, no control byte, no ':' or '/').
constexpr size_t kMaxHostText = 253;
bool is_host_text(const char* text);
// A credential: at most 255 bytes, no control byte (CR, LF, NUL...).
constexpr size_t kMaxCredentialText = 255;
bool is_credential_text(const char* text);

} // namespace zeph_commonlib
