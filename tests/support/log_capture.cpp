#include "log_capture.h"

#include <cstdio>
#include <mutex>
#include <sstream>

#include "waits.h"
#include "zeph_nettools/settings.h"

namespace zeph_test {

namespace {

// The store outlives every capture: a library thread that picked up the
// sink just before a capture ended may still call it afterwards.
struct CaptureStore {
    std::mutex mu;
    bool active = false;
    std::vector<LogLine> lines;
};

CaptureStore& capture_store() {
    static CaptureStore& store = *new CaptureStore;
    return store;
}

void capture_sink(void*, int level, const char* module, const char* function, const char* file, int line,
                  const char* message) {
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    if (st.active) st.lines.push_back(LogLine{level, module, function, file, line, message});
}

} // namespace

LogCapture::LogCapture(int max_level) {
    CaptureStore& st = capture_store();
    {
        std::lock_guard<std::mutex> lock(st.mu);
        if (st.active) std::fprintf(stderr, "zeph_test: a second LogCapture replaces the first\n");
        st.active = true;
        st.lines.clear();
    }
    zeph_settings_set_log_sink(capture_sink, nullptr, max_level);
}

LogCapture::~LogCapture() {
    zeph_settings_set_log_sink(nullptr, nullptr, ZEPH_LOG_WARNING);
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    st.active = false;
    st.lines.clear();
}

std::vector<LogLine> LogCapture::lines() const {
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    return st.lines;
}

int LogCapture::count(const std::string& substr) const {
    int n = 0;
    for (const LogLine& l : lines())
        if (l.message.find(substr) != std::string::npos) ++n;
    return n;
}

bool LogCapture::wait_for(const std::string& substr, int timeout_ms) const {
    return wait_until([&] { return contains(substr); }, timeout_ms);
}

void LogCapture::clear() {
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    st.lines.clear();
}

std::string LogCapture::dump() const {
    std::ostringstream out;
    for (const LogLine& l : lines()) {
        out << "[" << l.level << "] " << l.function << " " << l.file << ":" << l.line << ": " << l.message << "\n";
    }
    return out.str();
}

} // namespace zeph_test
