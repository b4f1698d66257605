// The small sort that puts audio RTP back in sequence. An audio stream is
// spread over up to four TCP channels, so its packets can arrive out of
// order; per SSRC a few are held back until the gap closes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "mediaSocket/PrivateHead.h"

// Bodies shorter than this are delivered unsorted.
constexpr int32_t kMinSortedBody = 13;
// Packets held back per SSRC before the oldest is forced out.
constexpr size_t kMaxHeldPackets = 7;

struct SortPacket {
    uint16_t seq = 0;
    int16_t pktLen = 0;
    uint8_t data[kMaxMediaPacketSize];
};

struct SortEntry {
    uint32_t ssrc = 0;
    std::map<uint16_t, SortPacket> packets;
    uint16_t lastSeq = 0;
};

// RTP sequence number and SSRC of an RTP body of at least 13 bytes.
bool ReadRtpSeqSsrc(const uint8_t* body, int32_t length, uint16_t& seq, uint32_t& ssrc);

using SortDeliver = std::function<void(const uint8_t* body, int32_t length)>;

// Runs one received audio RTP body through the sort of `entries` and calls
// `deliver` for every body that leaves it, in order:
//  - a body below 13 bytes leaves at once;
//  - the first packet of an SSRC only opens its stream and is not delivered;
//  - lastSeq + 1 leaves at once, then every held packet that follows on;
//  - anything else is held (a second copy of a held number is dropped), and
//    once 7 are held the lowest number is forced out, one per call.
// lastSeq + 1 is computed without 16-bit wrap-around, so 65535 is followed
// by 0 only through the forced path: the wrap costs a delay of seven
// packets, not a loss. Late and duplicate numbers are not recognised.
void SortBufferProcess(std::vector<SortEntry>& entries, const uint8_t* body, int32_t length,
                       const SortDeliver& deliver);
