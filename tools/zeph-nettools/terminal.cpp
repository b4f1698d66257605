// The one writer of stdout and stderr, and the progress spinner's thread.
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
    clear_progress(t);
    delete m_state;
}

double seconds_since(Clock::time_point t0, Clock::time_point t1) {
    return std::chrono::duration<double>(t1 - t0).count();
}

} // namespace cli
