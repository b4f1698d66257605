#include "log_capture.h"

#include <cstdio>
#include <mutex>
#include <sstream>

#include "waits.h"
#include "zeph_nettools/settings.h"

namespace zeph_test {

namespace {

// Outlives every capture: a thread that picked up the sink before the end may call it after.
struct CaptureStore {
    std::mutex mu;
    bool active = false;
    std::vector<LogLine> lines;
};

CaptureStore& capture_store() {
    static CaptureStore& store = *new CaptureStore;
    return store;
}

// Runs f on the store under its lock.
template <class F>
auto locked(F f) {
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    return f(st);
}

void capture_sink(void*, int level, const char* module, const char* function, const char* file, int line,
                  const char* message) {
    locked([&](CaptureStore& st) {
        if (st.active) st.lines.push_back(LogLine{level, module, function, file, line, message});
    });
}

} // namespace

LogCapture::LogCapture(int max_level) {
    locked([](CaptureStore& st) {
        if (st.active) std::fprintf(stderr, "zeph_test: a second LogCapture replaces the first\n");
        st.active = true;
        st.lines.clear();
    });
    zeph_settings_set_log_sink(capture_sink, nullptr, max_level);
}

LogCapture::~LogCapture() {
    zeph_settings_set_log_sink(nullptr, nullptr, ZEPH_LOG_WARNING);
    locked([](CaptureStore& st) { st.active = false, st.lines.clear(); });
}

std::vector<LogLine> LogCapture::lines() const { return locked([](CaptureStore& st) { return st.lines; }); }

int LogCapture::count(const std::string& substr) const {
    int n = 0;
    for (const LogLine& l : lines())
        if (l.message.find(substr) != std::string::npos) ++n;
    return n;
}

bool LogCapture::wait_for(const std::string& substr, int timeout_ms) const {
    return wait_until([&] { return contains(substr); }, timeout_ms);
}

void LogCapture::clear() { locked([](CaptureStore& st) { st.lines.clear(); }); }

std::string LogCapture::dump() const {
    std::ostringstream out;
    for (const LogLine& l : lines())
        out << "[" << l.level << "] " << l.function << " " << l.file << ":" << l.line << ": " << l.message << "\n";
    return out.str();
}

} // namespace zeph_test
