#include "mediaSocket/MediaStatsCounters.h"

#include <sstream>

void PacketCounters::CopyTo(MediaPacketCounts& out) const
{
    out.ErrCount = Get(ErrCount);
    out.RtpErrCount = Get(RtpErrCount);
    out.RtcpErrCount = Get(RtcpErrCount);
    out.SignalErrCount = Get(SignalErrCount);
    out.AnnoErrCount = Get(AnnoErrCount);
    out.MouseErrCount = Get(MouseErrCount);
    out.KeepaliveErrCount = Get(KeepaliveErrCount);
    out.SuccessCount = Get(SuccessCount);
    out.RtpSuccessCount = Get(RtpSuccessCount);
    out.RtcpSuccessCount = Get(RtcpSuccessCount);
    out.SignalSuccessCount = Get(SignalSuccessCount);
    out.AnnoSuccessCount = Get(AnnoSuccessCount);
    out.MouseSuccessCount = Get(MouseSuccessCount);
    out.KeepaliveSuccessCount = Get(KeepaliveSuccessCount);
    out.UnknowCount = Get(UnknowCount);
}

void CountPacket(PacketCounters& counts, uint32_t pktType, bool success)
{
    using P = PacketCounters;
    counts.Add(success ? P::SuccessCount : P::ErrCount);
    switch (pktType) {
        case 0: counts.Add(success ? P::RtpSuccessCount : P::RtpErrCount); break;
        case 1: counts.Add(success ? P::RtcpSuccessCount : P::RtcpErrCount); break;
        case 2: counts.Add(success ? P::SignalSuccessCount : P::SignalErrCount); break;
        case 3: counts.Add(success ? P::AnnoSuccessCount : P::AnnoErrCount); break;
        case 4: counts.Add(success ? P::MouseSuccessCount : P::MouseErrCount); break;
        case 128: counts.Add(success ? P::KeepaliveSuccessCount : P::KeepaliveErrCount); break;
        default: counts.Add(P::UnknowCount); break;
    }
}

std::string GetPacketCountsText(const PacketCounters& c)
{
    using P = PacketCounters;
    std::ostringstream os;
    // The last three success counts stand behind UnknowCount in these lines.
    os << ", ErrCount: " << c.Get(P::ErrCount) << ", RtpErrCount: " << c.Get(P::RtpErrCount)
       << ", RtcpErrCount: " << c.Get(P::RtcpErrCount) << ", SignalErrCount: " << c.Get(P::SignalErrCount)
       << ", AnnoErrCount: " << c.Get(P::AnnoErrCount) << ", MouseErrCount: " << c.Get(P::MouseErrCount)
       << ", KeepaliveErrCount: " << c.Get(P::KeepaliveErrCount) << ", SuccessCount: " << c.Get(P::SuccessCount)
       << ", RtpSuccessCount: " << c.Get(P::RtpSuccessCount) << ", RtcpSuccessCount: " << c.Get(P::RtcpSuccessCount)
       << ", KeepaliveSuccessCount: " << c.Get(P::KeepaliveSuccessCount) << ", UnknowCount: " << c.Get(P::UnknowCount)
       << ", SignalSuccessCount: " << c.Get(P::SignalSuccessCount) << ", AnnoSuccessCount: " << c.Get(P::AnnoSuccessCount)
       << ", MouseSuccessCount: " << c.Get(P::MouseSuccessCount);
    return os.str();
}

void MediaStatsCounters::CopyTo(MediaStats& out) const
{
    out.writeBufferErrCount = Load(writeBufferErrCount);
    out.readHeadErrCount = Load(readHeadErrCount);
    out.dataLoss = Load(dataLoss);
    recv.CopyTo(out.recv);
    out.sendCount = Load(sendCount);
    out.sendSuccessCount = Load(sendSuccessCount);
    out.sendErrCount = Load(sendErrCount);
    out.reserved = 0;
    out.lastSendErrLogTime = lastSendErrLogTime.load(std::memory_order_relaxed);
    out.sendLenErrorCount = Load(sendLenErrorCount);
    send.CopyTo(out.send);
    out.readOnePktErrCount = Load(readOnePktErrCount);
    out.noConnectSendCount = Load(noConnectSendCount);
}
