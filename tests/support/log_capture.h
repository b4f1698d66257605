// A capture of the library's log lines for tests; its sink is called on library threads.
#pragma once

#include <string>
#include <vector>

namespace zeph_test {

struct LogLine {
    int level;
    std::string module, function, file;
    int line;
    std::string message;
};

// A sink of max_level storing every line, the default sink again on destruction. One at a
// time per process; lines logged after it ended are dropped safely.
class LogCapture {
public:
    explicit LogCapture(int max_level = 3);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    bool contains(const std::string& substr) const { return count(substr) > 0; }
    int count(const std::string& substr) const;
    bool wait_for(const std::string& substr, int timeout_ms) const;
    void clear();
    // All lines as text, one per line, for failure messages.
    std::string dump() const;
};

} // namespace zeph_test
