// Tables and JSON lines of a media session. Runs on main.
#include "media_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "json.h"
#include "mediaSocket/MediaVocabulary.h"
#include "terminal.h"

namespace cli {
namespace {

const char* event_name(uint32_t id) {
    switch (id) {
    case ZEPH_MEDIA_EVENT_CHANNEL_LOST: return "channel lost";
    case ZEPH_MEDIA_EVENT_SEND_FAILED: return "send failed";
    case ZEPH_MEDIA_EVENT_RING_FLUSHED: return "send ring flushed";
    case ZEPH_MEDIA_EVENT_REFUSED: return "refusal in the stream";
    case ZEPH_MEDIA_EVENT_CONNECT_FAILED: return "connect failed";
    case ZEPH_MEDIA_EVENT_CONNECT_DOMAIN: return "connected by domain";
    case ZEPH_MEDIA_EVENT_DIRTY_DATA: return "dirty data";
    case ZEPH_MEDIA_EVENT_NO_SOCKET: return "no open socket at send";
    default: return "unknown event";
    }
}

bool is_media_code(int32_t code) {
    return code >= MEDIA_SOCKET_ERRCODE_FAILED && code <= MEDIA_SOCKET_ERRCODE_CONNECT_EVENT;
}

} // namespace

bool opens_sort(uint32_t mediaType, uint32_t pktType) {
    return mediaType == ZEPH_MEDIA_AUDIO && pktType == ZEPH_MEDIA_PKT_RTP;
}

// "MEDIA_SOCKET_ERRCODE_CONNECT_EVENT (-974)"
std::string code_text(int32_t code) { return std::string(GetMediaErrorName(code)) + " (" + std::to_string(code) + ")"; }

namespace {

// An event's code: a transport code by name, anything else (an HTTP status,
// a byte count, a socket error) as the number.
std::string event_code_text(uint32_t code) {
    const int32_t c = int32_t(code);
    return is_media_code(c) ? code_text(c) : std::to_string(c);
}

double percentile_ms(const std::vector<uint64_t>& sorted, double q) {
    const size_t n = sorted.size();
    size_t rank = size_t(std::ceil(q * double(n)));
    rank = std::min(n, std::max<size_t>(rank, 1));
    return double(sorted[rank - 1]) / 1e6;
}

std::string counts_json(const MediaPacketCounts& c) {
    Json j;
    j.add("ErrCount", c.ErrCount).add("RtpErrCount", c.RtpErrCount).add("RtcpErrCount", c.RtcpErrCount);
    j.add("SignalErrCount", c.SignalErrCount).add("AnnoErrCount", c.AnnoErrCount).add("MouseErrCount", c.MouseErrCount);
    j.add("KeepaliveErrCount", c.KeepaliveErrCount).add("SuccessCount", c.SuccessCount);
    j.add("RtpSuccessCount", c.RtpSuccessCount).add("RtcpSuccessCount", c.RtcpSuccessCount);
    j.add("SignalSuccessCount", c.SignalSuccessCount).add("AnnoSuccessCount", c.AnnoSuccessCount);
    j.add("MouseSuccessCount", c.MouseSuccessCount).add("KeepaliveSuccessCount", c.KeepaliveSuccessCount);
    j.add("UnknowCount", c.UnknowCount);
    return j.str();
}

std::string stats_json(const MediaStats& s) {
    Json j;
    j.add("writeBufferErrCount", s.writeBufferErrCount).add("readHeadErrCount", s.readHeadErrCount);
    j.add("dataLoss", s.dataLoss).raw("recv", counts_json(s.recv));
    j.add("sendCount", s.sendCount).add("sendSuccessCount", s.sendSuccessCount).add("sendErrCount", s.sendErrCount);
    j.add("reserved", s.reserved).add("lastSendErrLogTime", uint64_t(s.lastSendErrLogTime));
    j.add("sendLenErrorCount", s.sendLenErrorCount).raw("send", counts_json(s.send));
    j.add("readOnePktErrCount", s.readOnePktErrCount).add("noConnectSendCount", s.noConnectSendCount);
    return j.str();
}

} // namespace

void print_media_json(const MediaPlan& plan, const StreamRun& r, double sendSeconds, const char* phase) {
    const TypeTally& b = r.back;
    Json j;
    j.add("kind", "media");
    if (phase) j.add("phase", phase);
    j.add("session", plan.session).add("server", plan.host + ":" + std::to_string(plan.port));
    j.add("media_type", r.stream.mediaType).add("media_name", GetMediaTypeName(r.stream.mediaType));
    j.add("channels", r.channels).add("rate", r.stream.rate).add("size", plan.size).add("pkt_type", plan.pktType);
    j.add("duration_s", sendSeconds);
    uint64_t refused = 0;
    std::string codes = "[";
    for (auto& kv : r.refused) {
        refused += kv.second;
        Json c;
        c.add("code", kv.first).add("name", GetMediaErrorName(kv.first)).add("count", kv.second);
        codes += (codes.size() > 1 ? "," : "") + c.str();
    }
    j.add("sent", r.sent).add("accepted", r.accepted).add("refused", refused).raw("refused_by_code", codes + "]");
    j.add("received", b.received).add("corrupt", b.corrupt).add("reordered", b.reordered).add("foreign", b.foreign);
    j.add("bytes_sent", r.bytesSent).add("bytes_received", b.bytesBack);
    j.add("rtt_samples", uint64_t(b.rttNs.size()));
    if (b.rttNs.empty()) {
        j.raw("rtt_p50_ms", "null").raw("rtt_p99_ms", "null");
    } else {
        j.add("rtt_p50_ms", percentile_ms(b.rttNs, 0.50)).add("rtt_p99_ms", percentile_ms(b.rttNs, 0.99));
    }
    std::string events = "[";
    for (auto& kv : b.events) {
        Json e;
        e.add("id", kv.first.first).add("name", event_name(kv.first.first));
        e.add("code", int32_t(kv.first.second)).add("count", kv.second);
        events += (events.size() > 1 ? "," : "") + e.str();
    }
    j.raw("events", events + "]");
    j.add("stats_result", r.statsRc);
    j.raw("stats", r.statsRc == 0 ? stats_json(r.stats) : "null");
    out(j.str() + "\n");
}

void print_media_table(const MediaPlan& plan, const std::vector<StreamRun>& runs, double sendSeconds) {
    char line[512];
    std::snprintf(line, sizeof line, "media session %u with %s:%u: %.1f s of sending, %u-byte bodies, packet type %u (%s)\n",
                  plan.session, plan.host.c_str(), plan.port, sendSeconds, plan.size, plan.pktType,
                  GetPacketTypeName(plan.pktType));
    std::string s = line;
    s += "  type   chan    rate     sent  accepted  refused  received  corrupt  reordered    rtt p50    rtt p99"
         "   bytes sent  bytes back\n";
    auto ms = [](const std::vector<uint64_t>& v, double q) {
        if (v.empty()) return std::string("-");
        char b[32];
        std::snprintf(b, sizeof b, "%.3f ms", percentile_ms(v, q));
        return std::string(b);
    };
    bool anyRefused = false, anyEvents = false, anyForeign = false, sortNote = false;
    for (const StreamRun& r : runs) {
        uint64_t refused = 0;
        for (auto& kv : r.refused) refused += kv.second;
        anyRefused |= refused > 0;
        anyEvents |= !r.back.events.empty();
        anyForeign |= r.back.foreign > 0;
        sortNote |= opens_sort(r.stream.mediaType, plan.pktType) && r.accepted > 0;
        std::snprintf(line, sizeof line, "  %-5s %5u %7g %8llu %9llu %8llu %9llu %8llu %10llu %10s %10s %12llu %11llu\n",
                      GetMediaTypeName(r.stream.mediaType), r.channels, r.stream.rate, (unsigned long long)r.sent,
                      (unsigned long long)r.accepted, (unsigned long long)refused,
                      (unsigned long long)r.back.received, (unsigned long long)r.back.corrupt,
                      (unsigned long long)r.back.reordered, ms(r.back.rttNs, 0.50).c_str(),
                      ms(r.back.rttNs, 0.99).c_str(), (unsigned long long)r.bytesSent,
                      (unsigned long long)r.back.bytesBack);
        s += line;
    }
    if (anyRefused) {
        s += "  refused by MORL_MediaSend:\n";
        for (const StreamRun& r : runs)
            for (auto& kv : r.refused)
                s += std::string("    ") + GetMediaTypeName(r.stream.mediaType) + "  " + code_text(kv.first) + ": " +
                     std::to_string(kv.second) + "\n";
    }
    if (!anyEvents) {
        s += "  events: none\n";
    } else {
        s += "  events:\n";
        for (const StreamRun& r : runs)
            for (auto& kv : r.back.events)
                s += std::string("    ") + GetMediaTypeName(r.stream.mediaType) + "  " +
                     std::to_string(kv.first.first) + " " + event_name(kv.first.first) + ", code " +
                     event_code_text(kv.first.second) + ": " + std::to_string(kv.second) + "\n";
    }
    if (anyForeign) {
        s += "  received, not of this stream:";
        for (const StreamRun& r : runs)
            if (r.back.foreign) s += std::string(" ") + GetMediaTypeName(r.stream.mediaType) + " " +
                                     std::to_string(r.back.foreign);
        s += "\n";
    }
    s += "  transport counters (MORL_MediaGetStats):\n";
    for (const StreamRun& r : runs) {
        const char* name = GetMediaTypeName(r.stream.mediaType);
        if (r.statsRc != 0) {
            s += std::string("    ") + name + "  not available: " + code_text(r.statsRc) + "\n";
            continue;
        }
        const MediaStats& st = r.stats;
        auto keepalives = [](uint32_t n) { return n ? " (keepalive " + std::to_string(n) + ")" : std::string(); };
        std::snprintf(line, sizeof line,
                      "    %-5s  send: queued %u%s, ring refusals %u, to a channel %u, sent %u, failed %u, short %u, "
                      "damaged %u, unconnected %u\n",
                      name, st.send.SuccessCount, keepalives(st.send.KeepaliveSuccessCount).c_str(), st.send.ErrCount,
                      st.sendCount, st.sendSuccessCount, st.sendErrCount, st.sendLenErrorCount, st.readOnePktErrCount,
                      st.noConnectSendCount);
        s += line;
        std::snprintf(line, sizeof line,
                      "           recv: delivered %u%s, bad length %u, dirty runs %u, head errors %u, ring overflows %u\n",
                      st.recv.SuccessCount, keepalives(st.recv.KeepaliveSuccessCount).c_str(), st.recv.ErrCount,
                      st.dataLoss, st.readHeadErrCount, st.writeBufferErrCount);
        s += line;
    }
    if (sortNote)
        s += "  (the first audio RTP packet of a stream opens the receive sort and is not delivered)\n";
    out(s);
}

} // namespace cli
