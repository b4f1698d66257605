// Pieces shared by the subcommands of zeph-nettools: targets, common
// options, the inbox through which library callbacks reach main, output
// (tables, JSON lines, a progress spinner) and exit codes.
#pragma once

#include <zeph_nettools/net_tools.h>
#include <zeph_nettools/settings.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace cli {

using Clock = std::chrono::steady_clock;

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

// ---- targets ------------------------------------------------------------------

struct Target {
    std::string host;
    uint16_t port = 0;
    uint8_t protocol = 0; // ZEPH_TRANS_*
    uint32_t addr = 0;    // network byte order, once resolved
    std::string text() const; // "host:port/udp"
};

const char* proto_name(uint8_t protocol); // "tcp", "udp", "icmp"
// "HOST:PORT/tcp|udp|icmp" or "HOST/icmp" (the echo needs no port; the
// library still wants a non-zero one, so 1 is used).
bool parse_target(const std::string& text, Target& out, std::string& error);
// A whole number of lo..hi written with digits only (base 0: also 0x...):
// no sign, no blank, no overflow.
bool parse_uint(const std::string& v, uint64_t lo, uint64_t hi, uint64_t& out, int base = 10);
// A port, 1..65535, digits only.
bool parse_port(const std::string& v, uint16_t& out);
// Dotted text or a name to IPv4 in network byte order (A records only).
bool resolve_ipv4(const std::string& host, uint32_t& addr);
std::string ipv4_text(uint32_t addr);

// ---- options every subcommand takes ---------------------------------------------------

struct CommonOptions {
    bool json = false;
    int verbose = 0; // 0 warnings, 1 info (-v), 2 debug (-vv)
    bool help = false;
    std::string proxy_host;
    uint16_t proxy_port = 0;
    std::string proxy_user, proxy_pass;
};

enum class OptResult { NotMine, Taken, Bad };
// Takes argv[i] (and its value) when it is a common option; advances i past a value.
OptResult take_common_option(int argc, char** argv, int& i, CommonOptions& opt, std::string& error);
// Installs the log sink for the verbosity and the proxy. Empty on success,
// else the reason.
std::string apply_common(const CommonOptions& opt);

// ---- results from library threads ------------------------------------------------------

struct Event {
    enum Kind { AnyPort, ThreePort, Net } kind = Net;
    Clock::time_point at;
    AnyPortResult any{};
    PortDetectResult port{};
    NetDetectResult net{};
    uint32_t num() const;
};

// Callbacks to hand to the exports. They copy the record into the inbox
// and return at once.
void on_any_port(void* result);
void on_three_port(void* result);
void on_net(NetDetectResult* result);

// Takes the next event in arrival order, waiting until `deadline`. False
// when none came in time.
bool next_event(Event& ev, Clock::time_point deadline);

// ---- output ------------------------------------------------------------------------------

// Writes text to stdout (or stderr) as one piece, first clearing the
// progress line when one is shown.
void out(const std::string& text);
void err(const std::string& text);

// Shows "<spinner> label  1.2 s" on stderr while alive, only when stderr is
// a terminal.
class Progress {
public:
    explicit Progress(std::string label);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    struct State;
    State* m_state = nullptr;
};

// A flat JSON object built key by key.
class Json {
public:
    Json& add(const char* key, const std::string& v);
    Json& add(const char* key, const char* v) { return add(key, std::string(v)); }
    Json& add(const char* key, uint64_t v);
    Json& add(const char* key, int64_t v);
    Json& add(const char* key, uint32_t v) { return add(key, uint64_t(v)); }
    Json& add(const char* key, int32_t v) { return add(key, int64_t(v)); }
    Json& add(const char* key, double v);
    Json& raw(const char* key, const std::string& json); // an already built value
    std::string str() const { return "{" + m_body + "}"; }

    static std::string quote(const std::string& s);

private:
    void key(const char* k);
    std::string m_body;
};

double seconds_since(Clock::time_point t0, Clock::time_point t1);

// ---- rendering of records -----------------------------------------------------------------

// The targets of a port detection, by group, as given to the export.
using Groups = std::vector<std::vector<Target>>;

// Fills a PortDetectInfo from the groups (addresses already resolved).
void fill_port_info(const Groups& groups, PortDetectInfo& info);
void print_any_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase = nullptr);
void print_three_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase = nullptr);

void print_net_header(bool json);
void print_net(const NetDetectResult& r, const std::string& what, double elapsed_s, bool json,
               const char* phase = nullptr);

} // namespace cli
