// Results of the detections on their way from library threads to main: the
// callbacks (library threads) copy the record into the inbox and return at
// once; main takes the records in arrival order.
#pragma once

#include <zeph_nettools/net_tools.h>

#include "terminal.h"

namespace cli {

struct Event {
    enum Kind { AnyPort, ThreePort, Net } kind = Net;
    Clock::time_point at;
    AnyPortResult any{};
    PortDetectResult port{};
    NetDetectResult net{};
    uint32_t num() const;
};

// Callbacks to hand to the exports.
void on_any_port(void* result);
void on_three_port(void* result);
void on_net(NetDetectResult* result);

// Takes the next event in arrival order, waiting until `deadline`. False
// when none came in time.
bool next_event(Event& ev, Clock::time_point deadline);

} // namespace cli
