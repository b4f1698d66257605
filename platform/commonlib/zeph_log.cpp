// Logging of the detection side: one formatted line per DoLog call, handed
// to the host's sink or, by default, written to stderr.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "commonlib/zeph_commonlib.h"
#include "zeph_nettools/settings.h"

namespace {

// A sink and its user pointer travel together so that a thread never pairs
// the new sink with the old user pointer. Records are never freed: a thread
// may still hold one after the host changed the sink. Equal pairs are reused,
// so the number of records is bounded by the distinct sinks a host installs.
struct SinkRecord {
    zeph_log_sink sink;
    void* user;
};

struct LogState {
    std::atomic<const SinkRecord*> sink{nullptr};
    std::atomic<int> max_level{ZEPH_LOG_WARNING};
    std::mutex records_mutex; // guards records, only while a sink is set
    std::vector<const SinkRecord*> records;
};

LogState& log_state()
{
    static LogState& state = *new LogState;
    return state;
}

const SinkRecord* intern_sink(zeph_log_sink sink, void* user)
{
    LogState& st = log_state();
    std::lock_guard<std::mutex> lock(st.records_mutex);
    for (const SinkRecord* r : st.records) {
        if (r->sink == sink && r->user == user) {
            return r;
        }
    }
    const SinkRecord* r = new SinkRecord{sink, user};
    st.records.push_back(r);
    return r;
}

char level_letter(int level)
{
    switch (level) {
    case 0:
        return 'E';
    case 1:
        return 'W';
    case 2:
        return 'I';
    default:
        return 'D';
    }
}

// Lines longer than this are cut; long enough for any message of ours.
constexpr size_t kMaxLine = 4096;

bool is_ident_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool ends_with_operator(const char* begin, const char* end)
{
    static const char kOp[] = "operator";
    const size_t n = sizeof kOp - 1;
    if (static_cast<size_t>(end - begin) < n || std::memcmp(end - n, kOp, n) != 0) {
        return false;
    }
    return end - n == begin || !is_ident_char(*(end - n - 1));
}

bool is_operator_symbol(char c)
{
    return c == '<' || c == '>' || c == '=' || c == '-';
}

} // namespace

void zeph_settings_set_log_sink(zeph_log_sink sink, void* user, int max_level)
{
    if (max_level < ZEPH_LOG_ERROR) {
        max_level = ZEPH_LOG_ERROR;
    } else if (max_level > ZEPH_LOG_DEBUG) {
        max_level = ZEPH_LOG_DEBUG;
    }
    LogState& st = log_state();
    st.sink.store(sink ? intern_sink(sink, user) : nullptr, std::memory_order_release);
    st.max_level.store(max_level, std::memory_order_release);
}

bool zeph_log_enabled(int level)
{
    return level <= log_state().max_level.load(std::memory_order_relaxed);
}

void DoLog(const char* module, int level, int /*zero*/, const char* function, const char* file, int line,
           const char* format, ...)
{
    if (!zeph_log_enabled(level)) {
        return;
    }
    char message[kMaxLine];
    message[0] = '\0';
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        int n = std::vsnprintf(message, sizeof message, format, args);
        va_end(args);
        if (n < 0) {
            message[0] = '\0';
        }
    }
    module = module ? module : "";
    function = function ? function : "";
    file = file ? file : "";

    const SinkRecord* rec = log_state().sink.load(std::memory_order_acquire);
    if (rec != nullptr) {
        rec->sink(rec->user, level, module, function, file, line, message);
        return;
    }
    // One fprintf per line: stdio locks the stream, so lines of concurrent
    // threads do not interleave.
    std::fprintf(stderr, "[%c] %s %s %s:%d: %s\n", level_letter(level), module, function, file, line, message);
}

// Reduces a compiler's function signature to "Class::method" or "function":
// the return type, the parameter list, qualifiers and anything after the
// first parameter list (lambda and local-class suffixes) are dropped, and so
// are template arguments and anonymous namespaces.
const char* zeph_log_func_name(const char* pretty, char* buf, size_t size)
{
    if (buf == nullptr || size == 0) {
        return "";
    }
    buf[0] = '\0';
    if (pretty == nullptr) {
        return buf;
    }
    static const char kAnonClang[] = "(anonymous namespace)";
    const char* p = pretty;
    const char* paren = nullptr;
    int angle = 0;
    for (; *p != '\0'; ++p) {
        if (*p == '(' && std::strncmp(p, kAnonClang, sizeof kAnonClang - 1) == 0) {
            p += sizeof kAnonClang - 2;
            continue;
        }
        if (ends_with_operator(pretty, p)) {
            // "operator()", "operator<", "operator<<=": the symbol belongs to the name.
            if (p[0] == '(' && p[1] == ')') {
                ++p;
                continue;
            }
            while (is_operator_symbol(*p)) {
                ++p;
            }
            if (*p == '\0') {
                break;
            }
        }
        if (*p == '<') {
            ++angle;
        } else if (*p == '>' && angle > 0) {
            --angle;
        } else if (*p == '(' && angle == 0) {
            paren = p;
            break;
        }
    }
    if (paren == nullptr) {
        paren = p; // no parameter list: use the whole text
    }

    // Walk back from the parameter list to the space that ends the return
    // type, stepping over template arguments and parenthesised scopes.
    const char* start = pretty;
    angle = 0;
    for (const char* q = paren; q > pretty; --q) {
        char c = *(q - 1);
        if (c == '<' || c == '>') {
            const char* s = q - 1;
            while (s > pretty && is_operator_symbol(*(s - 1))) {
                --s;
            }
            if (ends_with_operator(pretty, s)) {
                q = s + 1;
                continue;
            }
        }
        if (c == '>' || c == ')') { // ")": "(anonymous namespace)"
            ++angle;
        } else if ((c == '<' || c == '(') && angle > 0) {
            --angle;
        } else if (c == ' ' && angle == 0) {
            // "Foo::operator bool": the space belongs to the name.
            if (ends_with_operator(pretty, q - 1)) {
                continue;
            }
            start = q;
            break;
        }
    }
    while (start < paren && (*start == '*' || *start == '&')) {
        ++start;
    }

    // Copy, dropping template arguments and anonymous namespace prefixes.
    static const char kAnonGcc[] = "{anonymous}::";
    static const char kAnonClangScope[] = "(anonymous namespace)::";
    size_t out = 0;
    angle = 0;
    for (const char* q = start; q < paren && out + 1 < size; ++q) {
        if (angle == 0 && std::strncmp(q, kAnonGcc, sizeof kAnonGcc - 1) == 0) {
            q += sizeof kAnonGcc - 2;
            continue;
        }
        if (angle == 0 && std::strncmp(q, kAnonClangScope, sizeof kAnonClangScope - 1) == 0) {
            q += sizeof kAnonClangScope - 2;
            continue;
        }
        if (angle == 0 && ends_with_operator(start, q)) {
            // Copy the operator symbol as it is.
            while (q < paren && out + 1 < size) {
                buf[out++] = *q++;
            }
            break;
        }
        if (*q == '<') {
            ++angle;
            continue;
        }
        if (*q == '>' && angle > 0) {
            --angle;
            continue;
        }
        if (angle == 0) {
            buf[out++] = *q;
        }
    }
    buf[out] = '\0';
    return buf;
}
