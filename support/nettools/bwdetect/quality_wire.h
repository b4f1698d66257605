// The quality packet: one UDP datagram whose 32-byte head comes in two
// layouts (private, and one that reads as a STUN Binding Request), followed
// by a 192-byte region whose use depends on the packet type. This is the one
// codec of that packet: offsets, types, the level table, the validity check
// every received packet passes first, and the building of the 1400-byte
// image a client sends from.
//
// Private layout (multi-byte fields most significant byte first):
//   0 tag FF 01 | 2 nonce | 4 mark 80 70 | 6 fill EC EC | 8 ver 16 | 9 flags |
//   10 type | 12 cookie 2112A442 | 16 seq | 20 session | 24 time |
//   28 level | 29 pair count | 30 len
// STUN layout: type at 0, len at 2, cookie at 4, session at 8 (and echoed
// plus 236 at 12); seq stays at 16; time and level are written where they
// always are but read as 0.
// Region, client to server: auth token at 32 (64 bytes), auth parameter at
// 96 (128 bytes), both padded with FF. Data response: eight pairs (seq, time)
// at 32 + 8i, status at 96. Auth response: result at 32.
//
// Pure functions over a caller's buffer and its size: no state, no logging,
// no randomness (the caller draws the nonce). Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zeph {
namespace quality {

// ---- sizes ----------------------------------------------------------------------
constexpr size_t kImageSize = 1400;     // the packet image a client sends from
constexpr size_t kRecvBufSize = 2048;   // a buffer for receiving
constexpr size_t kHeadSize = 32;
constexpr size_t kRegionSize = 192;
constexpr size_t kHeadRegionSize = kHeadSize + kRegionSize; // 224
constexpr size_t kAuthTokenSize = 64;
constexpr size_t kAuthParaSize = 128;

// ---- offsets, private layout ----------------------------------------------------------
constexpr size_t kOffTag = 0;
constexpr size_t kOffNonce = 2;
constexpr size_t kOffMark = 4;
constexpr size_t kOffFill = 6;
constexpr size_t kOffVer = 8;
constexpr size_t kOffFlags = 9;
constexpr size_t kOffType = 10;
constexpr size_t kOffCookie = 12;
constexpr size_t kOffSeq = 16;
constexpr size_t kOffSession = 20;
constexpr size_t kOffTime = 24;
constexpr size_t kOffLevel = 28;
constexpr size_t kOffPairCount = 29;
constexpr size_t kOffLen = 30;
// Region.
constexpr size_t kOffAuthToken = 32;
constexpr size_t kOffAuthPara = kOffAuthToken + kAuthTokenSize; // 96
constexpr size_t kOffPairs = 32;
constexpr size_t kPairStride = 8;
constexpr size_t kPairTimeDelta = 4; // time of a pair behind its seq
constexpr uint32_t kMaxPairs = 8;
constexpr size_t kOffStatus = kOffPairs + kMaxPairs * kPairStride; // 96
constexpr size_t kOffAuthResult = 32;

// ---- offsets, STUN layout (fields not named here keep the private offset) ---------------
constexpr size_t kStunOffType = 0;
constexpr size_t kStunOffLen = 2;
constexpr size_t kStunOffCookie = 4;
constexpr size_t kStunOffSession = 8;
constexpr size_t kStunOffSessionEcho = 12;
constexpr uint32_t kStunSessionEchoAdd = 236;

// ---- constant field values -------------------------------------------------------------
constexpr uint8_t kTag[2] = {0xFF, 0x01};
constexpr uint8_t kMark[2] = {0x80, 0x70};
constexpr uint8_t kFill[2] = {0xEC, 0xEC};
constexpr uint8_t kPktVer = 16;
constexpr uint32_t kPktCookie = 0x2112A442;
constexpr uint8_t kImageFillByte = 0xEC; // what an image holds where no field is written
constexpr uint8_t kAuthPadByte = 0xFF;   // what follows a token or parameter in its field
// pkt_len of an image that has only just been built.
constexpr uint16_t kFreshImageLen = 1400;

// ---- packet types ----------------------------------------------------------------------
constexpr uint16_t kTypeData = 1;
constexpr uint16_t kTypeAuth = 2; // also the data packets of a stream that runs with auth
constexpr uint16_t kTypeEnd = 3;
constexpr uint16_t kTypeDataResp = 0x0101;
constexpr uint16_t kTypeAuthResp = 0x0102;
constexpr uint16_t kTypeEndResp = 0x0103;

// pkt_status of a data response.
constexpr uint32_t kStatusOk = 0;
constexpr uint32_t kStatusRefused = 401;
// pkt_auth_result: 0 accepted, anything else refused; what get_auth_result
// answers for a packet that is not an auth response.
constexpr uint32_t kAuthAccepted = 0;
constexpr uint32_t kAuthNotAResponse = 3;

// A seq_limit of base_pkt_is_valid that stands for no limit.
constexpr uint32_t kSeqNoLimit = 0xFFFFFFFF;

// ---- level table -----------------------------------------------------------------------
struct LevelRow {
    uint32_t rate_kbit;      // units of 1024 bit/s; the multi-site client's scale
    uint32_t pkts_per_sec;
    uint32_t pkts_per_burst;
    uint32_t pkt_len;        // bytes per packet (m_pkt_len)
    uint32_t burst_interval; // ms from one burst to the next
};
constexpr uint32_t kLevelCount = 7;
constexpr uint8_t kMaxLevel = 6;
constexpr LevelRow kLevels[kLevelCount] = {
    {273, 25, 1, 1400, 40},   {512, 50, 1, 327, 20},    {1024, 100, 1, 655, 10}, {1536, 200, 1, 983, 5},
    {2048, 200, 1, 1310, 5},  {4096, 400, 2, 1310, 5},  {8192, 800, 4, 1310, 5},
};
// The row of `level`; levels above the table read the top row.
constexpr const LevelRow& level_row(uint32_t level) { return kLevels[level < kLevelCount ? level : kMaxLevel]; }
// A stored level of this or more reads as kLevelOverflowReadsAs.
constexpr uint8_t kLevelOverflow = 7;
constexpr uint8_t kLevelOverflowReadsAs = 1;

// A stream lasts this many seconds.
constexpr uint32_t kMinStreamSeconds = 3;
constexpr uint32_t kMaxStreamSeconds = 10;
// Packets of a stream of `seconds` at `level`: the bound of a valid seq.
constexpr uint32_t stream_packets(uint32_t level, uint32_t seconds) { return level_row(level).pkts_per_sec * seconds; }

// ---- head accessors ----------------------------------------------------------------------
// Each takes the packet and its size in bytes. A setter whose field does not
// fit in `size` writes nothing and answers false; a getter reads 0. `stun`
// selects the layout for the fields that move.
bool write_tag(uint8_t* pkt, size_t size);
bool write_nonce(uint8_t* pkt, size_t size, uint16_t nonce);
bool write_mark(uint8_t* pkt, size_t size);
bool write_fill(uint8_t* pkt, size_t size);

bool set_ver(uint8_t* pkt, size_t size, uint8_t ver);
uint8_t get_ver(const uint8_t* pkt, size_t size);
// ORs `bits` into the flags; clear takes them out; test answers whether any is set.
bool set_flags(uint8_t* pkt, size_t size, uint8_t bits);
bool clear_flags(uint8_t* pkt, size_t size, uint8_t bits);
bool test_flags(const uint8_t* pkt, size_t size, uint8_t bits);

bool set_type(uint8_t* pkt, size_t size, bool stun, uint16_t type);
uint16_t get_type(const uint8_t* pkt, size_t size, bool stun);
bool set_cookie(uint8_t* pkt, size_t size, bool stun, uint32_t cookie);
uint32_t get_cookie(const uint8_t* pkt, size_t size, bool stun);
bool set_seq(uint8_t* pkt, size_t size, uint32_t seq);
uint32_t get_seq(const uint8_t* pkt, size_t size);
// STUN layout: the value at 8, and value + 236 (mod 2^32) at 12.
bool set_session(uint8_t* pkt, size_t size, bool stun, uint32_t session);
uint32_t get_session(const uint8_t* pkt, size_t size, bool stun);
// Reads 0 in the STUN layout.
bool set_time(uint8_t* pkt, size_t size, uint32_t time);
uint32_t get_time(const uint8_t* pkt, size_t size, bool stun);
// Reads 0 in the STUN layout, and kLevelOverflowReadsAs for a stored value of
// kLevelOverflow or more.
bool set_level(uint8_t* pkt, size_t size, uint8_t level);
uint8_t get_level(const uint8_t* pkt, size_t size, bool stun);
// Reads 0 for a stored count above kMaxPairs, and always 0 in the STUN
// layout: a STUN peer's answer carries no pairs, whatever byte 29 holds.
bool set_pair_count(uint8_t* pkt, size_t size, uint8_t count);
uint8_t get_pair_count(const uint8_t* pkt, size_t size, bool stun);
bool set_len(uint8_t* pkt, size_t size, bool stun, uint16_t len);
uint16_t get_len(const uint8_t* pkt, size_t size, bool stun);
// Pair `index` (0 to 7); an index beyond writes nothing and reads 0.
bool set_pair_seq(uint8_t* pkt, size_t size, uint32_t index, uint32_t seq);
uint32_t get_pair_seq(const uint8_t* pkt, size_t size, uint32_t index);
bool set_pair_time(uint8_t* pkt, size_t size, uint32_t index, uint32_t time);
uint32_t get_pair_time(const uint8_t* pkt, size_t size, uint32_t index);
bool set_status(uint8_t* pkt, size_t size, uint32_t status);
uint32_t get_status(const uint8_t* pkt, size_t size);
bool set_auth_result(uint8_t* pkt, size_t size, uint32_t result);
// kAuthNotAResponse unless the packet's type is kTypeAuthResp.
uint32_t get_auth_result(const uint8_t* pkt, size_t size, bool stun);

// Copies `n` bytes of `value` into the 64-byte token (128-byte parameter)
// field and fills the rest of the field with FF; a value of the field's full
// size leaves no terminator. False, with nothing written, when the value is
// longer than the field or the field does not fit in `size`.
bool write_auth_token(uint8_t* pkt, size_t size, const char* value, size_t n);
bool write_auth_para(uint8_t* pkt, size_t size, const char* value, size_t n);

// ---- checks ---------------------------------------------------------------------------------
// Why a packet fails the first check, in the order the check makes them.
enum class Validity : int {
    Valid = 0,
    Short,      // the head is not all there
    BadVersion, // pkt_ver is not 16
    BadCookie,  // pkt_cookie is not 2112A442
    NegativeSeq,// pkt_seq, read as signed, is negative
    SeqBeyond,  // pkt_seq is not below the limit
};
// The check every received packet passes first: version, cookie, seq not
// negative, seq below `seq_limit` (kSeqNoLimit: none). `size` is the
// datagram's length.
Validity check_base(const uint8_t* pkt, size_t size, bool stun, uint32_t seq_limit);
// 1 if valid, else 0.
inline int base_pkt_is_valid(const uint8_t* pkt, size_t size, bool stun, uint32_t seq_limit) {
    return check_base(pkt, size, stun, seq_limit) == Validity::Valid ? 1 : 0;
}

// ---- images --------------------------------------------------------------------------------
// The image a client sends from, in the private layout: the first size-1
// bytes EC, then tag, nonce, mark, fill, ver 16, no flag (the flags keep EC),
// type 2, cookie, seq 0, session, level, pair count 0, len 1400, and the last
// byte 0. False when size is below the head and region.
bool build_image(uint8_t* pkt, size_t size, uint16_t nonce, uint32_t session, uint8_t level);
// The STUN form of the image: build_image, then 00 01 00 64 at 0, the cookie
// at 4, level 0, and "1234" at 12. Byte 8 keeps ver 16, bytes 9 to 11 the
// flags' EC and the private type 2; the session is not moved. The caller
// switches its layout to STUN afterwards.
constexpr uint16_t kStunImageType = 0x0001;
constexpr uint16_t kStunImageLen = 0x0064;
constexpr char kStunImageTxid[] = "12345678"; // only the first kStunImageTxidBytes go out
constexpr size_t kStunImageTxidBytes = 4;
bool build_stun_image(uint8_t* pkt, size_t size, uint16_t nonce, uint32_t session);

} // namespace quality
} // namespace zeph
