// A flat JSON object built key by key, for the --json output. Pure; any
// thread.
#pragma once

#include <cstdint>
#include <string>

namespace cli {

class Json {
public:
    Json& add(const char* key, const std::string& v);
    Json& add(const char* key, const char* v) { return add(key, std::string(v)); }
    Json& add(const char* key, uint64_t v);
    Json& add(const char* key, int64_t v);
    Json& add(const char* key, uint32_t v) { return add(key, uint64_t(v)); }
    Json& add(const char* key, int32_t v) { return add(key, int64_t(v)); }
    Json& add(const char* key, double v);
    Json& raw(const char* key, const std::string& json); // an already built value
    std::string str() const { return "{" + m_body + "}"; }

    static std::string quote(const std::string& s);

private:
    void key(const char* k);
    std::string m_body;
};

} // namespace cli
