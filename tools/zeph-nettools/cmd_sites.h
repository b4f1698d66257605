// The nearest-site race of `zeph-nettools sites`, also run by the demo: the
// first site to answer as soon as it answers, then the table of every site.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct RaceSite {
    std::string host;             // dotted address or name, as given
    uint16_t port = 64000;
    uint16_t category_delay = 0;  // ms to hold the site back (the library clips above 300)
    std::string label;            // what the output calls it; the text given when empty
};

// Reads "HOST[:PORT][@CATEGORY_DELAY]". False with `error` saying why.
bool parse_race_site(const std::string& text, RaceSite& site, std::string& error);

// Runs one race over `sites` (at most 32) and prints the first answer and the
// table (JSON objects carry `phase` when given). kExitOk; kExitNotStarted
// after a message "zeph-nettools: <cmd>: ..." when it could not start or did
// not report in time.
int run_sites(const std::string& cmd, const std::vector<RaceSite>& sites, bool json, const char* phase = nullptr);

} // namespace cli
