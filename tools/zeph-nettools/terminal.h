// What zeph-nettools writes: stdout and stderr each in one piece, the
// progress spinner or bar on stderr, the error lines and the exit codes. out() and
// err() may be called on any thread (library log lines arrive on library
// threads); the spinner runs on a thread of its own, owned by Progress.
#pragma once

#include <chrono>
#include <string>

namespace cli {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0, Clock::time_point t1);

// Exit codes of every subcommand.
enum ExitCode {
    kExitOk = 0,         // the run completed (whatever the network said)
    kExitNotStarted = 1, // a detection could not start or did not report in time
    kExitUsage = 2,      // bad arguments
};

// Prints "zeph-nettools: <cmd>: <msg> (see --help)" on stderr; returns kExitUsage.
int usage_error(const std::string& cmd, const std::string& msg);
// Prints "zeph-nettools: <cmd>: <msg>" on stderr; returns kExitNotStarted.
int run_error(const std::string& cmd, const std::string& msg);

// Writes text to stdout (or stderr) as one piece, first clearing the
// progress line when one is shown.
void out(const std::string& text);
void err(const std::string& text);

// Shows "<spinner> label  1.2 s" on stderr while alive, only when stderr is
// a terminal. With a `span` (the known length of what is waited for), a bar
// that fills over it instead: "[#####.....]  50 %  label  1.5/3.0 s"; once
// the span is over it stays full and the time runs on ("100 %  label
// 3.4 s"). The destructor stops and joins the drawing thread.
class Progress {
public:
    explicit Progress(std::string label, Clock::duration span = Clock::duration::zero());
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    struct State;
    State* m_state = nullptr;
};

} // namespace cli
