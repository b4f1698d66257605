// JSON text of the --json output.
#include "json.h"

#include <cstdio>

namespace cli {

std::string Json::quote(const std::string& s) {
    std::string o = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': o += "\\\""; break;
        case '\\': o += "\\\\"; break;
        case '\n': o += "\\n"; break;
        case '\r': o += "\\r"; break;
        case '\t': o += "\\t"; break;
        default:
            if (c < 0x20) {
                char b[8];
                std::snprintf(b, sizeof b, "\\u%04x", c);
                o += b;
            } else {
                o += char(c);
            }
        }
    }
    return o + "\"";
}

void Json::key(const char* k) {
    if (!m_body.empty()) m_body += ',';
    m_body += quote(k);
    m_body += ':';
}

Json& Json::add(const char* k, const std::string& v) {
    key(k);
    m_body += quote(v);
    return *this;
}

Json& Json::add(const char* k, uint64_t v) {
    key(k);
    m_body += std::to_string(v);
    return *this;
}

Json& Json::add(const char* k, int64_t v) {
    key(k);
    m_body += std::to_string(v);
    return *this;
}

Json& Json::add(const char* k, double v) {
    char b[32];
    std::snprintf(b, sizeof b, "%.3f", v);
    key(k);
    m_body += b;
    return *this;
}

Json& Json::raw(const char* k, const std::string& json) {
    key(k);
    m_body += json;
    return *this;
}

} // namespace cli
