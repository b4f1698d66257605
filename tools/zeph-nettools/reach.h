// The reach command's targets ("HOST:PORT/udp:nps"), its run of the
// connectivity detection and its output, shared with the demo. Runs on main.
#pragma once

#include <zeph_nettools/net_tools.h>

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct ReachTarget {
    std::string text; // as the command line gave it
    ConnectivitySite site;
};

// HOST:PORT/tcp[:direct], HOST:PORT/udp[:stun|nps|ice] or HOST/icmp.
bool parse_reach_target(const std::string& text, ReachTarget& out, std::string& error);
// Runs one detection of the targets and prints its result (a table, or one
// JSON line). An exit code: 0 printed, 1 not started or no result in time.
int run_reach(const std::vector<ReachTarget>& targets, uint32_t num, bool json, const char* phase);
void print_reach(const ConnectivityResult& r, const std::vector<ReachTarget>& targets, double elapsed_s, bool json,
                 const char* phase);

} // namespace cli
