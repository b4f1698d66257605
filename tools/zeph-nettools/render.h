// The results of the port and net detections as table rows or JSON lines on
// stdout. Runs on main.
#pragma once

#include <string>

#include "inbox.h"
#include "targets.h"

namespace cli {

void print_any_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase = nullptr);
void print_three_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase = nullptr);

void print_net_header(bool json);
void print_net(const NetDetectResult& r, const std::string& what, double elapsed_s, bool json,
               const char* phase = nullptr);

} // namespace cli
