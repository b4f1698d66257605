// The media session of `zeph-nettools media`, also run by the demo: opens a
// session, streams packets on each chosen media type for a while, and prints
// per media type what was sent, refused, echoed, the events and the
// transport's own counters.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct MediaStream {
    uint32_t mediaType = 1; // ZEPH_MEDIA_*
    uint32_t channels = 0;  // asked of the transport, which caps it (4 audio, 1 the others); 0: that default
    double rate = 50;       // packets per second
};

struct MediaPlan {
    uint32_t session = 1;
    std::string host; // dotted IPv4, as the transport takes it
    uint16_t port = 0;
    std::vector<MediaStream> streams;
    uint32_t size = 200; // body bytes of every packet
    uint32_t pktType = 0;
    double duration = 3; // seconds of sending; the echoes are awaited after it
};

// Body bytes that a packet needs at least: an RTP head, the send time and
// the packet's number in its stream.
constexpr uint32_t kMediaMinBody = 24;

// The transport's log lines on stderr from verbosity 1 on; none at 0.
void set_media_log(int verbose);

// Runs the plan and prints one table (or one JSON object per media type,
// carrying `phase` when given). kExitOk, or kExitNotStarted after a message
// "zeph-nettools: <cmd>: ..." when the session could not be opened or
// connected.
int run_media_session(const std::string& cmd, const MediaPlan& plan, bool json, const char* phase = nullptr);

} // namespace cli
