// Temporary folders and child processes for tests and benchmarks. A Process belongs to the
// thread that made it; its destructor stops the child by its PID.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zeph_test {

// Path of a program built in tools/ of this build tree.
std::string tool_path(const std::string& name);

class TempDir {
public:
    TempDir(); // mkdtemp under $TMPDIR or /tmp
    ~TempDir(); // removes the folder and everything in it
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes text to file(name); true on success.
    bool write(const std::string& name, const std::string& text) const;
    // Whole content of file(name), empty when missing.
    std::string read(const std::string& name) const;

private:
    std::string path_;
};

// A program started with posix_spawnp; stdout and stderr go to files in its
// own TempDir. stop() sends SIGTERM, waits up to timeout_ms, then SIGKILLs.
class Process {
public:
    Process() = default;
    ~Process() { stop(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // argv[0] is looked up in PATH when it has no '/'. False, with error(), when it cannot start.
    bool start(const std::vector<std::string>& argv);
    // True while the child has not exited (reaps it when it has).
    bool running();
    // Stops the child by its PID; its wait status, or -1 when nothing ran. Idempotent.
    int stop(int timeout_ms = 3000);

    pid_t pid() const { return pid_; }
    const std::string& error() const { return error_; }
    std::string stdout_text() const { return dir_.read("stdout"); }
    std::string stderr_text() const { return dir_.read("stderr"); }
    const TempDir& dir() const { return dir_; }

private:
    TempDir dir_;
    pid_t pid_ = -1;
    int status_ = -1;
    std::string error_;
};

} // namespace zeph_test
