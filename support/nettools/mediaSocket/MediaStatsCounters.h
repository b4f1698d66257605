// The counters behind MediaStats: one set per media type and one per
// channel. They are relaxed atomics, so that the receive thread, the send
// thread and the callers of MORL_MediaSend may count at once and a reader
// may copy them at any time; each counter is exact, a copy is not a
// snapshot across counters.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "zeph_nettools/media_socket.h"

struct PacketCounters {
    enum Index : uint32_t {
        ErrCount,
        RtpErrCount,
        RtcpErrCount,
        SignalErrCount,
        AnnoErrCount,
        MouseErrCount,
        KeepaliveErrCount,
        SuccessCount,
        RtpSuccessCount,
        RtcpSuccessCount,
        SignalSuccessCount,
        AnnoSuccessCount,
        MouseSuccessCount,
        KeepaliveSuccessCount,
        UnknowCount,
        Count
    };
    std::atomic<uint32_t> v[Count] = {};

    uint32_t Get(Index i) const { return v[i].load(std::memory_order_relaxed); }
    void Add(Index i) { v[i].fetch_add(1, std::memory_order_relaxed); }
    void CopyTo(MediaPacketCounts& out) const;
};

// Adds one packet of pktType to counts, as a success or a failure.
void CountPacket(PacketCounters& counts, uint32_t pktType, bool success);
// ", ErrCount: 0, RtpErrCount: 0, ..." in the order of the log lines.
std::string GetPacketCountsText(const PacketCounters& counts);

struct MediaStatsCounters {
    using Counter = std::atomic<uint32_t>;
    Counter writeBufferErrCount{0};
    Counter readHeadErrCount{0};
    Counter dataLoss{0};
    PacketCounters recv;
    Counter sendCount{0};
    Counter sendSuccessCount{0};
    Counter sendErrCount{0};
    std::atomic<uint64_t> lastSendErrLogTime{0};
    Counter sendLenErrorCount{0};
    PacketCounters send;
    Counter readOnePktErrCount{0};
    Counter noConnectSendCount{0};

    // Adds 1 and returns the value before.
    static uint32_t Bump(Counter& c) { return c.fetch_add(1, std::memory_order_relaxed); }
    static uint32_t Load(const Counter& c) { return c.load(std::memory_order_relaxed); }

    // The caller's 168-byte record.
    void CopyTo(MediaStats& out) const;
};
