// The multi-site quality run of `zeph-nettools quality`, also run by the
// demo: streams to every site at once, then one table (or JSON objects) of
// each site's figures and the best site.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct QualitySite {
    std::string host;     // as given
    uint16_t port = 64000;
    uint32_t delaybase = 0; // ms added to the one-way delay when scoring
    std::string token = "zeph-nettools";
    std::string para = "quality";
    std::string label;    // what the table calls it; host:port when empty
};

// Reads "HOST[:PORT][,base=MS][,token=T][,para=P][,name=TEXT]". False with
// `error` saying why.
bool parse_quality_site(const std::string& text, QualitySite& site, std::string& error);

// Runs the detection over `sites` and prints the result (JSON objects carry
// `phase` when given). kExitOk; kExitNotStarted after a message
// "zeph-nettools: <cmd>: ..." when it could not start, failed or did not
// report in time.
int run_quality(const std::string& cmd, const std::vector<QualitySite>& sites, bool json,
                const char* phase = nullptr);

} // namespace cli
