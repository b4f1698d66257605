// What a media session returns per media type, and its rendering as a table
// or as JSON lines on stdout. The tallies are filled on the transport's
// receive thread (under the session's lock) and rendered on main.
#pragma once

#include <zeph_nettools/media_socket.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "cmd_media.h"

namespace cli {

// What came back on one media type.
struct TypeTally {
    uint64_t received = 0, corrupt = 0, reordered = 0, foreign = 0, bytesBack = 0;
    bool anyBack = false;
    uint32_t highest = 0; // highest packet number back so far
    std::vector<uint64_t> rttNs;
    uint64_t rttSeen = 0;
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> events; // (eventId, errorCode) -> count
};

// The first audio RTP packet of a stream only opens the receive sort and is
// never delivered.
bool opens_sort(uint32_t mediaType, uint32_t pktType);

// One media type of a session: what was asked, sent, refused and received.
struct StreamRun {
    MediaStream stream;
    uint32_t channels = 0;
    uint64_t total = 0; // packets to send
    uint64_t sent = 0, accepted = 0, bytesSent = 0;
    std::map<int32_t, uint64_t> refused; // MORL_MediaSend result -> count
    bool created = false;
    int32_t statsRc = MEDIA_SOCKET_ERRCODE_NO_CREATE;
    MediaStats stats{};
    TypeTally back;
    uint64_t expectedBack(uint32_t pktType) const {
        return accepted - (opens_sort(stream.mediaType, pktType) && accepted > 0 ? 1 : 0);
    }
};

// "MEDIA_SOCKET_ERRCODE_CONNECT_EVENT (-974)"
std::string code_text(int32_t code);

// One JSON object of a media type; `phase` is added when given.
void print_media_json(const MediaPlan& plan, const StreamRun& r, double sendSeconds, const char* phase);
// The table of all media types of a session.
void print_media_table(const MediaPlan& plan, const std::vector<StreamRun>& runs, double sendSeconds);

} // namespace cli
