// The small sort that puts audio RTP back in sequence. An audio stream is
// spread over up to four TCP channels, so its packets can arrive out of
// order; per SSRC a few are held back until the gap closes.
//
// Thread: the session's receive thread ("TCPSocketRecvThread") alone; the
// state lives in its SocketInfo and is never shared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <unordered_map>

#include "mediaSocket/PrivateHead.h"

// Bodies shorter than this are delivered unsorted.
constexpr int32_t kMinSortedBody = 13;
// Packets held back per SSRC before the oldest is forced out.
constexpr size_t kMaxHeldPackets = 7;
// SSRCs whose sort state is kept per media type. A call carries a handful of
// audio streams; this many only come from a peer that invents SSRCs, and it
// bounds what such a peer can make us hold: at most
// kMaxSortStreams * (kMaxHeldPackets - 1) held packets.
constexpr size_t kMaxSortStreams = 256;
// Streams that sent only their opening packet are evicted among themselves
// once they are this many.
constexpr size_t kMaxOpenedStreams = kMaxSortStreams / 2;

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

using SortDeliver = std::function<void(const uint8_t* body, int32_t length)>;

// The sort state of one media type: one SortEntry per SSRC, found by hash.
//
// Streams that have sent only their opening packet (and so hold nothing)
// are kept apart from running ones. When a new SSRC arrives and
// kMaxSortStreams are kept, one entry goes:
//  - the least recently opened stream, once opened streams fill half the
//    table: a flood of one-packet SSRCs, however fast, then only pushes out
//    its own kind, never a stream in progress;
//  - else the least recently seen running stream, so that a stream just
//    opened lives to send its second packet, even among many new SSRCs.
//    What the running stream held back is delivered first, lowest number
//    first, as the forced path would have done: eviction loses nothing. Its
//    next packet opens it anew.
class SortBuffers {
public:
    // The entry of `ssrc`, marked as seen just now; null when there is none.
    SortEntry* Find(uint32_t ssrc);
    // Makes the entry of an SSRC not kept yet, evicting one if full (the
    // evicted entry's held packets go to `deliver`).
    SortEntry& Open(uint32_t ssrc, uint16_t seq, const SortDeliver& deliver);

    size_t size() const { return index_.size(); }

private:
    using List = std::list<SortEntry>;
    struct Slot {
        List* list;
        List::iterator it;
    };

    void Evict(const SortDeliver& deliver);

    List opened_; // sent one packet so far; most recent first
    List running_; // sent more; most recent first
    std::unordered_map<uint32_t, Slot> index_;
};

// RTP sequence number and SSRC of an RTP body of at least 13 bytes.
bool ReadRtpSeqSsrc(const uint8_t* body, int32_t length, uint16_t& seq, uint32_t& ssrc);

// Runs one received audio RTP body through the sort of `buffers` and calls
// `deliver` for every body that leaves it, in order:
//  - a body below 13 bytes leaves at once;
//  - the first packet of an SSRC only opens its stream and is not delivered;
//  - lastSeq + 1 leaves at once, then every held packet that follows on;
//  - anything else is held (a second copy of a held number is dropped), and
//    once 7 are held the lowest number is forced out, one per call.
// lastSeq + 1 is computed without 16-bit wrap-around, so 65535 is followed
// by 0 only through the forced path: the wrap costs a delay of seven
// packets, not a loss. Late and duplicate numbers are not recognised.
// Opening a stream may evict another (see SortBuffers) and deliver what that
// one held back.
void SortBufferProcess(SortBuffers& buffers, const uint8_t* body, int32_t length, const SortDeliver& deliver);
