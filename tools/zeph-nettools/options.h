// The command line of zeph-nettools: strict numbers and ports, and the
// options every subcommand takes (--json, -v/-vv, --help, --proxy in both
// its forms), applied to the library before a run. Runs on main.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

// A whole number of lo..hi written with digits only (base 0: also 0x...):
// no sign, no blank, no overflow.
bool parse_uint(const std::string& v, uint64_t lo, uint64_t hi, uint64_t& out, int base = 10);
// A port, 1..65535, digits only.
bool parse_port(const std::string& v, uint16_t& out);
// The parts between commas, empty ones included ("a,,b" is three).
std::vector<std::string> split_commas(const std::string& s);

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

} // namespace cli
