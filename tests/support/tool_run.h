// Runs of the zeph-nettools program as a child process, and its JSON lines
// parsed by python3's json module rather than by our own code.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zeph_test {

struct ToolRun {
    int status = -1;
    std::string out, err;
    uint64_t started_ms = 0, last_output_ms = 0, ended_ms = 0;
    bool exited = false;
    // Exit code, -1 when it did not exit by itself in time.
    int code() const;
    size_t lines() const;
    uint64_t ms() const { return ended_ms - started_ms; }
    // Status and both outputs, for failure messages.
    std::string what() const;
};

// Runs zeph-nettools with `args` until it exits or `timeout_ms` pass, noting when stdout last grew.
ToolRun run_tool(const std::vector<std::string>& args, int timeout_ms);

// Each run of `refused` exits 2 with one stderr line, no stdout; `SUB --help` exits 0 with its usage.
void expect_usage_errors(const std::vector<std::vector<std::string>>& refused);
void expect_help(const std::string& subcommand);

// Each stdout line as JSON, flattened to "LINE:path.to.key" -> JSON text ("1", "\"udp\"");
// empty, with a test failure, when a line does not parse.
std::map<std::string, std::string> parse_json_lines(const std::string& text);

// m[key], or "<missing key>".
std::string at(const std::map<std::string, std::string>& m, const std::string& key);

} // namespace zeph_test
