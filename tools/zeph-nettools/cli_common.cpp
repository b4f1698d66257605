#include "cli_common.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

namespace cli {

// ---- errors ----------------------------------------------------------------------------

int usage_error(const std::string& cmd, const std::string& msg) {
    err("zeph-nettools: " + (cmd.empty() ? std::string() : cmd + ": ") + msg + " (see --help)\n");
    return kExitUsage;
}

int run_error(const std::string& cmd, const std::string& msg) {
    err("zeph-nettools: " + cmd + ": " + msg + "\n");
    return kExitNotStarted;
}

// ---- targets -----------------------------------------------------------------------------

const char* proto_name(uint8_t protocol) {
    switch (protocol) {
    case ZEPH_TRANS_TCP: return "tcp";
    case ZEPH_TRANS_UDP: return "udp";
    case ZEPH_TRANS_ICMP: return "icmp";
    default: return "?";
    }
}

std::string Target::text() const {
    if (protocol == ZEPH_TRANS_ICMP) return host + "/icmp";
    return host + ":" + std::to_string(port) + "/" + proto_name(protocol);
}

bool parse_target(const std::string& text, Target& out, std::string& error) {
    error = "bad target '" + text + "', expected HOST:PORT/tcp|udp|icmp";
    auto slash = text.rfind('/');
    if (slash == std::string::npos) return false;
    std::string proto = text.substr(slash + 1);
    std::string hostport = text.substr(0, slash);
    Target t;
    if (proto == "tcp")
        t.protocol = ZEPH_TRANS_TCP;
    else if (proto == "udp")
        t.protocol = ZEPH_TRANS_UDP;
    else if (proto == "icmp")
        t.protocol = ZEPH_TRANS_ICMP;
    else
        return false;
    auto colon = hostport.rfind(':');
    if (colon == std::string::npos) {
        if (t.protocol != ZEPH_TRANS_ICMP) return false;
        t.host = hostport;
        t.port = 1;
    } else {
        t.host = hostport.substr(0, colon);
        if (!parse_port(hostport.substr(colon + 1), t.port)) {
            error = "bad port in '" + text + "' (1..65535)";
            return false;
        }
    }
    if (t.host.empty()) return false;
    out = t;
    error.clear();
    return true;
}

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

bool resolve_ipv4(const std::string& host, uint32_t& addr) {
    in_addr a{};
    if (inet_pton(AF_INET, host.c_str(), &a) == 1) {
        addr = a.s_addr;
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) return false;
    addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(res);
    return true;
}

std::string ipv4_text(uint32_t addr) {
    char buf[INET_ADDRSTRLEN] = {};
    in_addr a{};
    a.s_addr = addr;
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

// ---- common options -----------------------------------------------------------------------

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

// ---- inbox -------------------------------------------------------------------------------------

namespace {

struct Inbox {
    std::mutex mu;
    std::condition_variable cv;
    std::deque<Event> events;
};

// Never destroyed: a late callback on a library thread may still arrive
// while the process exits.
Inbox& inbox() {
    static Inbox& box = *new Inbox;
    return box;
}

void deliver(Event ev) {
    ev.at = Clock::now();
    Inbox& box = inbox();
    {
        std::lock_guard<std::mutex> lock(box.mu);
        box.events.push_back(ev);
    }
    box.cv.notify_all();
}

} // namespace

uint32_t Event::num() const {
    switch (kind) {
    case AnyPort: return any.num;
    case ThreePort: return port.num;
    default: return net.num;
    }
}

void on_any_port(void* result) {
    if (!result) return;
    Event ev;
    ev.kind = Event::AnyPort;
    std::memcpy(&ev.any, result, sizeof ev.any);
    deliver(ev);
}

void on_three_port(void* result) {
    if (!result) return;
    Event ev;
    ev.kind = Event::ThreePort;
    std::memcpy(&ev.port, result, sizeof ev.port);
    deliver(ev);
}

void on_net(NetDetectResult* result) {
    if (!result) return;
    Event ev;
    ev.kind = Event::Net;
    ev.net = *result;
    deliver(ev);
}

bool next_event(Event& ev, Clock::time_point deadline) {
    Inbox& box = inbox();
    std::unique_lock<std::mutex> lock(box.mu);
    if (!box.cv.wait_until(lock, deadline, [&] { return !box.events.empty(); })) return false;
    ev = box.events.front();
    box.events.pop_front();
    return true;
}

// ---- output ----------------------------------------------------------------------------------------

namespace {

struct Terminal {
    std::mutex mu;
    bool progress_shown = false; // a progress line sits on stderr
};

Terminal& terminal() {
    static Terminal& t = *new Terminal;
    return t;
}

void write_locked(FILE* f, const std::string& text) {
    Terminal& t = terminal();
    std::lock_guard<std::mutex> lock(t.mu);
    if (t.progress_shown) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        t.progress_shown = false;
    }
    std::fwrite(text.data(), 1, text.size(), f);
    std::fflush(f);
}

} // namespace

void out(const std::string& text) { write_locked(stdout, text); }
void err(const std::string& text) { write_locked(stderr, text); }

struct Progress::State {
    std::string label;
    Clock::time_point t0 = Clock::now();
    std::mutex mu;
    std::condition_variable cv;
    bool stop = false;
    std::thread thread;
};

Progress::Progress(std::string label) {
    if (!isatty(STDERR_FILENO)) return;
    m_state = new State;
    m_state->label = std::move(label);
    State* s = m_state;
    try {
        m_state->thread = std::thread([s] {
            static const char kSpin[] = "|/-\\";
            std::unique_lock<std::mutex> lock(s->mu);
            for (unsigned tick = 0; !s->stop; ++tick) {
                char line[160];
                std::snprintf(line, sizeof line, "\r%c %s  %.1f s\033[K", kSpin[tick % 4], s->label.c_str(),
                              seconds_since(s->t0, Clock::now()));
                {
                    Terminal& t = terminal();
                    std::lock_guard<std::mutex> tl(t.mu);
                    std::fputs(line, stderr);
                    std::fflush(stderr);
                    t.progress_shown = true;
                }
                s->cv.wait_for(lock, std::chrono::milliseconds(100), [s] { return s->stop; });
            }
        });
    } catch (const std::system_error&) {
        // No spinner then; the run itself does not depend on it.
        delete m_state;
        m_state = nullptr;
    }
}

Progress::~Progress() {
    if (!m_state) return;
    {
        std::lock_guard<std::mutex> lock(m_state->mu);
        m_state->stop = true;
    }
    m_state->cv.notify_all();
    m_state->thread.join();
    Terminal& t = terminal();
    std::lock_guard<std::mutex> lock(t.mu);
    if (t.progress_shown) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        t.progress_shown = false;
    }
    delete m_state;
}

double seconds_since(Clock::time_point t0, Clock::time_point t1) {
    return std::chrono::duration<double>(t1 - t0).count();
}

// ---- JSON -----------------------------------------------------------------------------------------

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

// ---- records ---------------------------------------------------------------------------------------

void fill_port_info(const Groups& groups, PortDetectInfo& info) {
    std::memset(&info, 0, sizeof info);
    info.group_num = int32_t(groups.size());
    for (size_t g = 0; g < groups.size(); ++g) {
        info.groups[g].detect_num = int32_t(groups[g].size());
        for (size_t e = 0; e < groups[g].size(); ++e) {
            PortDetectEntry& en = info.groups[g].entries[e];
            en.addr = groups[g][e].addr;
            en.port = groups[g][e].port;
            en.protocol = groups[g][e].protocol;
        }
    }
}

namespace {

std::string pad(std::string s, size_t w) {
    if (s.size() < w) s.append(w - s.size(), ' ');
    return s;
}

const char* media_word(uint32_t v) {
    static const char* const kWords[] = {"brel", "kest", "line"};
    return kWords[v % 3];
}

} // namespace

void print_any_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase) {
    const AnyPortResult& r = ev.any;
    if (json) {
        std::string gs = "[";
        for (uint32_t g = 0; g < r.group_num && g < ZEPH_PORT_DETECT_MAX_GROUPS; ++g) {
            const AnyPortGroupResult& gr = r.groups[g];
            std::string open = "[", targets = "[";
            for (uint32_t e = 0; e < gr.detect_num && e < ZEPH_PORT_DETECT_MAX_ENTRIES; ++e) {
                if (e) open += ",", targets += ",";
                open += std::to_string(gr.open[e]);
                targets += Json::quote(g < groups.size() && e < groups[g].size() ? groups[g][e].text() : "");
            }
            Json j;
            j.add("detect_num", gr.detect_num).raw("open", open + "]").raw("targets", targets + "]");
            gs += (g ? "," : "") + j.str();
        }
        Json j;
        j.add("kind", "any_port");
        if (phase) j.add("phase", phase);
        j.add("num", r.num).add("type", r.type).add("group_num", r.group_num).raw("groups", gs + "]");
        j.add("elapsed_ms", int64_t(elapsed_s * 1000));
        out(j.str() + "\n");
        return;
    }
    char head[160];
    std::snprintf(head, sizeof head, "any-port detection #%u: %u group(s), result after %.2f s\n", r.num, r.group_num,
                  elapsed_s);
    std::string s = head;
    s += "  group  " + pad("target", 32) + "state\n";
    for (uint32_t g = 0; g < r.group_num && g < ZEPH_PORT_DETECT_MAX_GROUPS; ++g) {
        for (uint32_t e = 0; e < r.groups[g].detect_num && e < ZEPH_PORT_DETECT_MAX_ENTRIES; ++e) {
            std::string t = g < groups.size() && e < groups[g].size() ? groups[g][e].text() : "?";
            s += "  " + pad(std::to_string(g), 7) + pad(t, 32) + (r.groups[g].open[e] ? "open" : "closed") + "\n";
        }
    }
    out(s);
}

void print_three_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase) {
    const PortDetectResult& r = ev.port;
    const uint32_t best = r.ret >> 24, media = (r.ret >> 8) & 0xFF, share = r.ret & 0xFF;
    if (json) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08x", r.ret);
        Json j;
        j.add("kind", "three_port");
        if (phase) j.add("phase", phase);
        j.add("num", r.num).add("type", r.type).add("ret", r.ret).add("ret_hex", hex);
        j.add("group", best).add("media", media).add("media_word", media_word(media));
        j.add("share", share).add("share_word", media_word(share));
        j.add("elapsed_ms", int64_t(elapsed_s * 1000));
        out(j.str() + "\n");
        return;
    }
    char line[256];
    std::snprintf(line, sizeof line, "three-port detection #%u: code 0x%08x after %.2f s\n", r.num, r.ret, elapsed_s);
    std::string s = line;
    if (r.ret == 0) {
        s += "  nothing reached (media brel, share brel)\n";
    } else {
        std::string where = best < groups.size() && !groups[best].empty() ? " (" + groups[best][0].host + ")" : "";
        std::snprintf(line, sizeof line, "  best group %u%s: media %u (%s), share %u (%s)\n", best, where.c_str(), media,
                      media_word(media), share, media_word(share));
        s += line;
    }
    out(s);
}

void print_net_header(bool json) {
    if (json) return;
    out("  " + pad("level", 7) + pad("measures", 50) + "qos  average      min      max  discard  proxy       t\n");
}

void print_net(const NetDetectResult& r, const std::string& what, double elapsed_s, bool json, const char* phase) {
    if (json) {
        Json j;
        j.add("kind", "net");
        if (phase) j.add("phase", phase);
        j.add("num", r.num).add("level", r.level).add("level_num", r.level_num).add("qos", r.qos);
        j.add("average", r.average).add("max", r.max).add("min", r.min).add("discard", r.discard);
        j.add("is_proxy", r.is_proxy).add("ready", r.ready).add("reported", r.reported).add("context", r.context);
        j.add("what", what).add("elapsed_ms", int64_t(elapsed_s * 1000));
        out(j.str() + "\n");
        return;
    }
    // In the table a delay that was not measured shows as "-": 0 (no
    // server given) or the 1000 ms placeholder of a measurement that got no
    // answer at all. JSON keeps the record as the library gave it.
    const bool none = r.discard >= 100;
    auto ms = [none](int32_t v) { return none || v == 0 ? std::string("-") : std::to_string(v) + " ms"; };
    char line[256];
    std::snprintf(line, sizeof line, "%3u  %7s  %7s  %7s  %5d %%  %-5s  %5.2f s\n", r.qos, ms(r.average).c_str(),
                  ms(r.min).c_str(), ms(r.max).c_str(), r.discard, r.is_proxy ? "yes" : "no", elapsed_s);
    out("  " + pad(std::to_string(r.level), 7) + pad(what, 50) + line);
}

} // namespace cli
