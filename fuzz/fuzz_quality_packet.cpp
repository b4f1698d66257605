// Feeds any datagram to the quality packet's codec as a receiver sees it,
// in both head layouts, and checks what the codec promises:
//  - nothing is read or written outside the datagram (the sanitizers see it);
//  - the first check passes only a whole head with version 16, the cookie
//    where the layout keeps it, and a sequence number that is neither
//    negative nor at or beyond the limit;
//  - levels read 0 to 6, pair counts 0 to 8, the STUN layout reads no time
//    no level and no pairs, an auth result is read only from an auth response;
//  - writing back what was read leaves the datagram as it was (but for the
//    fields whose reading is clipped), and a server's answer written into it
//    changes only the fields it sets.
//
// Input: the datagram itself, at most 2048 bytes are looked at.
// Verdict: what the first check says in the private and the STUN layout.
// Runs on the fuzzer's (or the replay's) one thread.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bwdetect/quality_wire.h"
#include "fuzz_verdict.h"

namespace q = zeph::quality;

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

// The longest stream any level and length allow.
constexpr uint32_t kSeqLimit = q::stream_packets(q::kMaxLevel, q::kMaxStreamSeconds);

std::string g_verdict;

const char* Words(q::Validity v)
{
    switch (v) {
    case q::Validity::Valid: return "valid";
    case q::Validity::Short: return "short";
    case q::Validity::BadVersion: return "bad version";
    case q::Validity::BadCookie: return "bad cookie";
    case q::Validity::NegativeSeq: return "negative seq";
    case q::Validity::SeqBeyond: return "seq beyond";
    }
    return "?";
}

void CheckLayout(std::vector<uint8_t>& pkt, bool stun)
{
    uint8_t* p = pkt.data();
    const size_t n = pkt.size();

    const q::Validity v = q::check_base(p, n, stun, kSeqLimit);
    if (v == q::Validity::Valid) {
        CHECK(n >= q::kHeadSize);
        CHECK(q::get_ver(p, n) == q::kPktVer);
        CHECK(q::get_cookie(p, n, stun) == q::kPktCookie);
        CHECK(q::get_seq(p, n) < kSeqLimit);
    }
    CHECK((v == q::Validity::Valid) == (q::base_pkt_is_valid(p, n, stun, kSeqLimit) == 1));
    // No limit refuses only what the limit cannot explain.
    const q::Validity open = q::check_base(p, n, stun, q::kSeqNoLimit);
    CHECK(open != q::Validity::SeqBeyond);
    if (v != q::Validity::SeqBeyond) CHECK(open == v);

    CHECK(q::get_level(p, n, stun) <= q::kMaxLevel);
    if (stun) {
        CHECK(q::get_level(p, n, stun) == 0);
        CHECK(q::get_time(p, n, stun) == 0);
        CHECK(q::get_pair_count(p, n, stun) == 0);
    }
    CHECK(q::get_pair_count(p, n, stun) <= q::kMaxPairs);
    if (q::get_type(p, n, stun) != q::kTypeAuthResp) CHECK(q::get_auth_result(p, n, stun) == q::kAuthNotAResponse);

    // Writing back what was read changes nothing (the clipped fields aside).
    const std::vector<uint8_t> before = pkt;
    q::set_ver(p, n, q::get_ver(p, n));
    q::set_type(p, n, stun, q::get_type(p, n, stun));
    q::set_cookie(p, n, stun, q::get_cookie(p, n, stun));
    q::set_seq(p, n, q::get_seq(p, n));
    q::set_len(p, n, stun, q::get_len(p, n, stun));
    q::set_status(p, n, q::get_status(p, n));
    for (uint32_t i = 0; i < q::kMaxPairs; ++i) {
        q::set_pair_seq(p, n, i, q::get_pair_seq(p, n, i));
        q::set_pair_time(p, n, i, q::get_pair_time(p, n, i));
    }
    if (!stun) {
        q::set_session(p, n, stun, q::get_session(p, n, stun));
        q::set_time(p, n, q::get_time(p, n, stun));
    }
    CHECK(pkt == before);

    // A server's answer: type, time, pairs, status; the rest as it came.
    std::vector<uint8_t> answer = pkt;
    uint8_t* a = answer.data();
    const bool typed = q::set_type(a, n, stun, q::kTypeDataResp);
    CHECK(typed == (n >= (stun ? q::kStunOffType : q::kOffType) + 2));
    q::set_time(a, n, 0x01020304);
    q::set_pair_count(a, n, q::kMaxPairs);
    for (uint32_t i = 0; i < q::kMaxPairs; ++i) {
        q::set_pair_seq(a, n, i, i);
        q::set_pair_time(a, n, i, ~i);
    }
    const bool status = q::set_status(a, n, q::kStatusOk);
    CHECK(status == (n >= q::kOffStatus + 4));
    for (size_t i = q::kOffStatus + 4; i < n; ++i) CHECK(a[i] == p[i]);
    if (status) {
        CHECK(q::get_pair_count(a, n, stun) == (stun ? 0u : q::kMaxPairs));
        for (uint32_t i = 0; i < q::kMaxPairs; ++i) CHECK(q::get_pair_seq(a, n, i) == i && q::get_pair_time(a, n, i) == ~i);
        CHECK(q::get_type(a, n, stun) == q::kTypeDataResp);
        CHECK(q::get_time(a, n, stun) == (stun ? 0u : 0x01020304u));
    }

    // A token of any length lands in its field or nowhere.
    std::vector<uint8_t> tok = pkt;
    const size_t len = n ? p[0] : 0;
    const std::string value(len, 'x');
    const bool wrote = q::write_auth_token(tok.data(), n, value.data(), len);
    CHECK(wrote == (len <= q::kAuthTokenSize && n >= q::kOffAuthPara));
    for (size_t i = 0; i < n; ++i) {
        if (wrote && i >= q::kOffAuthToken && i < q::kOffAuthPara) continue;
        CHECK(tok[i] == p[i]);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > q::kRecvBufSize) size = q::kRecvBufSize;
    // The datagram in a buffer of its own size, so that any read beyond is seen.
    std::vector<uint8_t> pkt(data, data + size);
    const q::Validity priv = q::check_base(pkt.data(), pkt.size(), false, kSeqLimit);
    const q::Validity stun = q::check_base(pkt.data(), pkt.size(), true, kSeqLimit);
    CheckLayout(pkt, false);
    CheckLayout(pkt, true);
    g_verdict = std::string("private ") + Words(priv) + ", stun " + Words(stun);
    return 0;
}

std::string FuzzVerdict() { return g_verdict; }
