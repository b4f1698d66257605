// The one writer of stdout and stderr, and the progress line's thread.
#include "terminal.h"

#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <system_error>
#include <thread>

namespace cli {

int usage_error(const std::string& cmd, const std::string& msg) {
    err("zeph-nettools: " + (cmd.empty() ? std::string() : cmd + ": ") + msg + " (see --help)\n");
    return kExitUsage;
}

int run_error(const std::string& cmd, const std::string& msg) {
    err("zeph-nettools: " + cmd + ": " + msg + "\n");
    return kExitNotStarted;
}

namespace {

struct Terminal {
    std::mutex mu;
    bool progress_shown = false; // a progress line sits on stderr
};

Terminal& terminal() {
    static Terminal& t = *new Terminal;
    return t;
}

// Wipes the progress line when one is shown; t.mu is held.
void clear_progress(Terminal& t) {
    if (!t.progress_shown) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    t.progress_shown = false;
}

void write_locked(FILE* f, const std::string& text) {
    Terminal& t = terminal();
    std::lock_guard<std::mutex> lock(t.mu);
    clear_progress(t);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fflush(f);
}

constexpr int kBarWidth = 20;
constexpr int kPercent = 100;

// One frame of the progress line: the spinner, or the bar when `span` is set.
void progress_frame(char* line, size_t size, unsigned tick, const std::string& label, Clock::duration elapsed,
                    Clock::duration span) {
    static const char kSpin[] = "|/-\\";
    const double seconds = std::chrono::duration<double>(elapsed).count();
    if (span <= Clock::duration::zero()) {
        std::snprintf(line, size, "\r%c %s  %.1f s\033[K", kSpin[tick % 4], label.c_str(), seconds);
        return;
    }
    const double whole = std::chrono::duration<double>(span).count();
    const double part = seconds >= whole ? 1.0 : seconds / whole;
    const int filled = static_cast<int>(part * kBarWidth);
    char bar[kBarWidth + 1];
    for (int i = 0; i < kBarWidth; ++i) bar[i] = i < filled ? '#' : '.';
    bar[kBarWidth] = '\0';
    if (seconds >= whole)
        std::snprintf(line, size, "\r[%s] %3d %%  %s  %.1f s\033[K", bar, kPercent, label.c_str(), seconds);
    else
        std::snprintf(line, size, "\r[%s] %3d %%  %s  %.1f/%.1f s\033[K", bar, static_cast<int>(part * kPercent),
                      label.c_str(), seconds, whole);
}

} // namespace

void out(const std::string& text) { write_locked(stdout, text); }
void err(const std::string& text) { write_locked(stderr, text); }

struct Progress::State {
    std::string label;
    Clock::duration span = Clock::duration::zero();
    Clock::time_point t0 = Clock::now();
    std::mutex mu;
    std::condition_variable cv;
    bool stop = false;
    std::thread thread;
};

Progress::Progress(std::string label, Clock::duration span) {
    if (!isatty(STDERR_FILENO)) return;
    m_state = new State;
    m_state->label = std::move(label);
    m_state->span = span;
    State* s = m_state;
    try {
        m_state->thread = std::thread([s] {
            std::unique_lock<std::mutex> lock(s->mu);
            for (unsigned tick = 0; !s->stop; ++tick) {
                char line[160];
                progress_frame(line, sizeof line, tick, s->label, Clock::now() - s->t0, s->span);
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
        // No progress line then; the run itself does not depend on it.
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
    clear_progress(t);
    delete m_state;
}

double seconds_since(Clock::time_point t0, Clock::time_point t1) {
    return std::chrono::duration<double>(t1 - t0).count();
}

} // namespace cli
