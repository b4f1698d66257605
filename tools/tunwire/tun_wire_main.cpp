// zeph-tun-wire: runs a command in side A of the delaying wire, optionally
// with a server command in side B, and prints what the wire did. The main
// thread spawns both children (each from a short-lived thread inside its
// side's namespace), waits for the command, then stops the server by PID.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tun_wire.h"

extern char** environ;

namespace {

const char kUsage[] =
    "usage: zeph-tun-wire [options] -- COMMAND [ARGS...]\n"
    "\n"
    "Runs COMMAND in a network namespace (side A, address 198.18.0.1) joined\n"
    "to a second one (side B, 198.18.0.2) by a wire that delays, jitters and\n"
    "drops packets per direction. A value A,B sets A->B to A and B->A to B; a\n"
    "single value sets both. Needs root.\n"
    "\n"
    "  --delay MS[,MS]       one-way delay in milliseconds (default 0)\n"
    "  --jitter MS[,MS]      uniform jitter, +- milliseconds (default 0)\n"
    "  --loss P[,P]          loss per direction, percent (default 0)\n"
    "  --keep-order          never let jitter reorder packets\n"
    "  --seed N              seed of the random draws (default 1)\n"
    "  --server CMD          shell command run in side B for as long as COMMAND runs\n"
    "  --server-port PORT    wait until B's server accepts TCP on PORT before COMMAND\n"
    "\n"
    "Exits with COMMAND's status; prints the wire's counters on stderr.\n";

constexpr int kServerReadyMs = 5000;
constexpr int kServerPollMs = 20;
constexpr int kServerStopMs = 2000;
constexpr int kUsageExit = 2;

int bad(const std::string& msg) {
    std::fprintf(stderr, "zeph-tun-wire: %s (see --help)\n", msg.c_str());
    return kUsageExit;
}

bool parse_double(const std::string& s, double& out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    out = std::strtod(s.c_str(), &end);
    return errno == 0 && end && *end == '\0' && out >= 0;
}

// "A" or "A,B" into the two directions.
bool parse_pair(const std::string& s, double& a_to_b, double& b_to_a) {
    const auto comma = s.find(',');
    if (comma == std::string::npos) {
        if (!parse_double(s, a_to_b)) return false;
        b_to_a = a_to_b;
        return true;
    }
    return parse_double(s.substr(0, comma), a_to_b) && parse_double(s.substr(comma + 1), b_to_a);
}

// Spawns argv inside a side's namespace; the child's PID, or -1.
pid_t spawn_in(zeph_wire::TunWire& wire, zeph_wire::Side side, const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    std::string error;
    if (wire.run_in(side, [&] {
            if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) pid = -1;
        }, &error) != 0) {
        std::fprintf(stderr, "zeph-tun-wire: %s\n", error.c_str());
        return -1;
    }
    return pid;
}

// Waits for a child up to timeout_ms; its status, or -1 if it still runs.
int wait_child(pid_t pid, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) return status;
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(kServerPollMs));
    }
}

bool server_ready(zeph_wire::TunWire& wire, uint16_t port) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kServerReadyMs);
    while (std::chrono::steady_clock::now() < deadline) {
        double ms = -1;
        wire.run_in(zeph_wire::Side::B, [&] { ms = zeph_wire::plain_connect_ms(zeph_wire::kAddrB, port, kServerPollMs); });
        if (ms >= 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(kServerPollMs));
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    zeph_wire::TunWireConfig cfg;
    std::string server;
    uint16_t server_port = 0;
    std::vector<std::string> command;
    double loss_ab = 0, loss_ba = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--") {
            command.assign(argv + i + 1, argv + argc);
            break;
        } else if (a == "--delay") {
            if (!value(v) || !parse_pair(v, cfg.a_to_b.delay_ms, cfg.b_to_a.delay_ms)) return bad("bad --delay");
        } else if (a == "--jitter") {
            if (!value(v) || !parse_pair(v, cfg.a_to_b.jitter_ms, cfg.b_to_a.jitter_ms)) return bad("bad --jitter");
        } else if (a == "--loss") {
            if (!value(v) || !parse_pair(v, loss_ab, loss_ba) || loss_ab > 100 || loss_ba > 100)
                return bad("bad --loss");
        } else if (a == "--keep-order") {
            cfg.keep_order = true;
        } else if (a == "--seed") {
            double seed = 0;
            if (!value(v) || !parse_double(v, seed)) return bad("bad --seed");
            cfg.seed = uint64_t(seed);
        } else if (a == "--server") {
            if (!value(server)) return bad("--server needs a command");
        } else if (a == "--server-port") {
            double port = 0;
            if (!value(v) || !parse_double(v, port) || port < 1 || port > 65535) return bad("bad --server-port");
            server_port = uint16_t(port);
        } else {
            return bad("unknown option " + a);
        }
    }
    if (command.empty()) return bad("no command after --");
    cfg.a_to_b.loss = loss_ab / 100;
    cfg.b_to_a.loss = loss_ba / 100;

    zeph_wire::TunWire wire(cfg);
    std::string error;
    if (wire.start(&error) != 0) {
        std::fprintf(stderr, "zeph-tun-wire: %s\n", error.c_str());
        return 1;
    }
    pid_t server_pid = -1;
    if (!server.empty()) {
        server_pid = spawn_in(wire, zeph_wire::Side::B, {"/bin/sh", "-c", server});
        if (server_pid < 0) return 1;
        if (server_port && !server_ready(wire, server_port)) {
            std::fprintf(stderr, "zeph-tun-wire: nothing accepts on %s:%u\n", zeph_wire::kAddrB, server_port);
            kill(server_pid, SIGTERM);
            waitpid(server_pid, nullptr, 0);
            return 1;
        }
        wire.take_log(); // the readiness checks are not the command's traffic
    }
    const pid_t pid = spawn_in(wire, zeph_wire::Side::A, command);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) status = -1;
    if (server_pid > 0) {
        kill(server_pid, SIGTERM);
        if (wait_child(server_pid, kServerStopMs) < 0) {
            kill(server_pid, SIGKILL);
            waitpid(server_pid, nullptr, 0);
        }
    }

    const auto st = wire.stats();
    const auto log = wire.take_log();
    int answered = 0, asked = 0;
    double sum = 0;
    for (const auto& rt : zeph_wire::round_trips(log)) {
        ++asked;
        if (rt.answered) {
            ++answered;
            sum += rt.truth_ms;
        }
    }
    std::fprintf(stderr,
                 "zeph-tun-wire: A->B forwarded %llu dropped %llu, B->A forwarded %llu dropped %llu; "
                 "%d of %d requests answered, mean round trip %.3f ms\n",
                 (unsigned long long)st.a_to_b.forwarded, (unsigned long long)st.a_to_b.dropped,
                 (unsigned long long)st.b_to_a.forwarded, (unsigned long long)st.b_to_a.dropped, answered, asked,
                 answered ? sum / answered : 0.0);
    if (status < 0) return 1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
