// Numbers, ports and the common options of every subcommand; the log sink
// it installs is called on library threads.
#include "options.h"

#include <zeph_nettools/settings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "terminal.h"

namespace cli {

bool parse_uint(const std::string& v, uint64_t lo, uint64_t hi, uint64_t& out, int base) {
    if (v.empty() || v[0] < '0' || v[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long n = std::strtoull(v.c_str(), &end, base);
    if (errno || !end || *end || n < lo || n > hi) return false;
    out = n;
    return true;
}

bool parse_port(const std::string& v, uint16_t& out) {
    uint64_t n = 0;
    if (!parse_uint(v, 1, 65535, n)) return false;
    out = uint16_t(n);
    return true;
}

std::vector<std::string> split_commas(const std::string& s) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        auto c = s.find(',', start);
        parts.push_back(s.substr(start, c == std::string::npos ? std::string::npos : c - start));
        if (c == std::string::npos) return parts;
        start = c + 1;
    }
}

namespace {

const char kProxyForms[] = "HOST:PORT[,USER:PASS] or http://[USER:PASS@]HOST:PORT";

// %XX escapes of a URL's user and password, as curl users write them.
bool percent_decode(const std::string& in, std::string& out) {
    out.clear();
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '%') {
            out += in[i];
            continue;
        }
        if (i + 2 >= in.size() || !std::isxdigit(static_cast<unsigned char>(in[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(in[i + 2])))
            return false;
        out += char(std::stoi(in.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return true;
}

// HOST:PORT[,USER:PASS], or the URL form http://[USER:PASS@]HOST:PORT[/].
bool parse_proxy(std::string v, CommonOptions& opt, std::string& error) {
    std::string user, pass, hostport;
    const std::string scheme = "http://";
    const bool url = v.compare(0, scheme.size(), scheme) == 0;
    if (url) {
        v = v.substr(scheme.size());
        if (!v.empty() && v.back() == '/') v.pop_back();
        const auto at = v.rfind('@');
        hostport = at == std::string::npos ? v : v.substr(at + 1);
        if (at != std::string::npos) {
            const std::string cred = v.substr(0, at);
            const auto c = cred.find(':');
            if (c == std::string::npos || c == 0 || !percent_decode(cred.substr(0, c), user) ||
                !percent_decode(cred.substr(c + 1), pass)) {
                error = "bad proxy credentials in the URL, expected USER:PASS@ (with %XX escapes)";
                return false;
            }
        }
    } else {
        const auto comma = v.find(',');
        hostport = v.substr(0, comma);
        if (comma != std::string::npos) {
            const std::string cred = v.substr(comma + 1);
            const auto c = cred.find(':');
            if (c == std::string::npos || c == 0) {
                error = "bad proxy credentials, expected USER:PASS";
                return false;
            }
            user = cred.substr(0, c);
            pass = cred.substr(c + 1);
        }
    }
    const auto colon = hostport.rfind(':');
    uint16_t port = 0;
    if (colon == std::string::npos || colon == 0 || hostport.find('@') != std::string::npos ||
        !parse_port(hostport.substr(colon + 1), port)) {
        error = std::string("bad --proxy value, expected ") + kProxyForms;
        return false;
    }
    opt.proxy_host = hostport.substr(0, colon);
    opt.proxy_port = port;
    opt.proxy_user = user;
    opt.proxy_pass = pass;
    return true;
}

} // namespace

OptResult take_common_option(int argc, char** argv, int& i, CommonOptions& opt, std::string& error) {
    std::string a = argv[i];
    if (a == "--json") {
        opt.json = true;
    } else if (a == "-v") {
        opt.verbose = std::max(opt.verbose, 1);
    } else if (a == "-vv") {
        opt.verbose = 2;
    } else if (a == "-h" || a == "--help") {
        opt.help = true;
    } else if (a == "--proxy") {
        if (i + 1 >= argc) {
            error = std::string("--proxy needs ") + kProxyForms;
            return OptResult::Bad;
        }
        // The value may hold a password: no error line repeats it.
        if (!parse_proxy(argv[++i], opt, error)) return OptResult::Bad;
    } else {
        return OptResult::NotMine;
    }
    return OptResult::Taken;
}

namespace {

const char kLevelChar[] = {'E', 'W', 'I', 'D'};

// Library lines on stderr, one tidy line each. Called on library threads.
void log_sink(void* user, int level, const char* /*module*/, const char* function, const char* file, int line,
              const char* message) {
    const bool with_place = user != nullptr; // -vv shows where a line comes from
    char head[64];
    std::snprintf(head, sizeof head, "[%c] ", level >= 0 && level <= 3 ? kLevelChar[level] : '?');
    std::string s = head;
    s += function ? function : "";
    if (with_place && file) s += std::string(" (") + file + ":" + std::to_string(line) + ")";
    s += ": ";
    s += message ? message : "";
    if (s.empty() || s.back() != '\n') s += '\n';
    err(s);
}

} // namespace

static void silent_sink(void*, int, const char*, const char*, const char*, int, const char*) {}

std::string apply_common(const CommonOptions& opt) {
    // By default the library's own lines stay hidden: many of its "errors"
    // are ordinary outcomes of a probe (a refused port, a foreign ICMP
    // packet), and what a detection found is in the results printed here.
    // -v shows errors, warnings and info lines; -vv adds debug lines and
    // where each line comes from.
    static int with_place = 1;
    if (opt.verbose == 0)
        zeph_settings_set_log_sink(silent_sink, nullptr, ZEPH_LOG_ERROR);
    else
        zeph_settings_set_log_sink(log_sink, opt.verbose >= 2 ? &with_place : nullptr,
                                   opt.verbose == 1 ? ZEPH_LOG_INFO : ZEPH_LOG_DEBUG);
    if (!opt.proxy_host.empty()) {
        const char* user = opt.proxy_user.empty() ? nullptr : opt.proxy_user.c_str();
        const char* pass = opt.proxy_user.empty() ? nullptr : opt.proxy_pass.c_str();
        if (zeph_settings_set_http_proxy(opt.proxy_host.c_str(), opt.proxy_port, user, pass) != 0)
            return "cannot use proxy " + opt.proxy_host + ":" + std::to_string(opt.proxy_port);
    }
    return {};
}

} // namespace cli
