// Feeds keys, user fragments and passwords of any length (and raw caller
// records without terminators) to the STUN service and checks every packet
// it builds: whole, below 256 bytes, attributes in order and well formed,
// USERNAME equal to remote ":" local, MESSAGE-INTEGRITY and FINGERPRINT
// right, private head consistent.
//
// Input: 5 length bytes, then key, local ufrag, local password, remote
// ufrag, remote password; whatever follows is a raw StunIceInfo.
//
// Verdict: whether the username went into the request, and what the
// framed build gave for the key, a part of it, and the raw record (built,
// not found, or no record).
#include <openssl/sha.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz_verdict.h"
#include "inc/stun_wire.h"
#include "mediaSocket/StunManager.h"
#include "zeph_nettools/stun.h"

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

std::string g_verdict; // of the last input

// True when the message carries the username.
bool CheckMessage(const uint8_t* msg, uint32_t len, std::string_view username)
{
    CHECK(len >= 20 && len < 256);
    zeph::ByteReader r(msg, len);
    zeph::stun::Header h;
    CHECK(zeph::stun::read_header(r, h));
    CHECK(h.type == zeph::stun::kBindingRequest && h.cookie == zeph::stun::kMagicCookie);
    CHECK(h.length + 20u == len && h.length < 236);
    zeph::stun::Attribute a;
    int order = 0;
    bool sawUser = false;
    while (zeph::stun::read_attribute(r, a)) {
        if (a.type == zeph::stun::kAttrUsername) {
            CHECK(order < 1);
            order = 1;
            sawUser = true;
            CHECK(std::string_view(reinterpret_cast<const char*>(a.value), a.length) == username);
        } else if (a.type == zeph::stun::kAttrMessageIntegrity) {
            CHECK(order < 2 && a.length == 20);
            order = 2;
            uint8_t prefix[256];
            std::memcpy(prefix, msg, a.offset);
            const uint16_t counted = static_cast<uint16_t>(a.offset + 24 - 20);
            prefix[2] = static_cast<uint8_t>(counted >> 8);
            prefix[3] = static_cast<uint8_t>(counted);
            uint8_t sha[SHA_DIGEST_LENGTH];
            SHA1(prefix, a.offset, sha);
            CHECK(std::memcmp(sha, a.value, 20) == 0);
        } else {
            CHECK(a.type == zeph::stun::kAttrFingerprint && order < 3);
            order = 3;
            CHECK(zeph::stun::check_fingerprint(msg, len));
        }
    }
    CHECK(r.remaining() == 0);
    // A username is left out only when it cannot fit.
    CHECK(sawUser == (4 + zeph::stun::padded_size(username.size()) < 236));
    return sawUser;
}

const char* BuildAndCheck(StunManager& table, const std::string& key, bool fuzzy, std::string_view username)
{
    uint8_t buf[300];
    uint32_t len = 288;
    const uint32_t rc = table.StunBuildPacket(key, buf, &len, fuzzy);
    if (rc == ZEPH_STUN_ERR_NOT_FOUND) return "not found";
    CHECK(rc == 0 && len > 16);
    CHECK(buf[0] == 0xFF && buf[1] == 3 && buf[2] == 129 && buf[3] == 1);
    CHECK((buf[12] << 8 | buf[13]) == static_cast<int>(len));
    CheckMessage(buf + 16, len - 16, username);
    return "built";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_verdict = "too short";
    if (size < 5) return 0;
    size_t pos = 5;
    std::string_view field[5];
    for (int i = 0; i < 5; ++i) {
        const size_t n = std::min<size_t>(data[i] * 2u, size - pos);
        field[i] = std::string_view(reinterpret_cast<const char*>(data + pos), n);
        pos += n;
    }
    const std::string key(field[0]);

    StunManager table;
    CHECK(table.StunSetIceInfo(key, field[1], field[2], StunManager::kLocal) == 0);
    CHECK(table.StunSetIceInfo(key, field[3], field[4], StunManager::kRemote) == 0);
    const std::string username = std::string(field[3]) + ":" + std::string(field[1]);

    uint8_t bare[256];
    uint32_t len = sizeof bare;
    CHECK(table.StunBuildStunPacket(key, bare, &len) == 0);
    g_verdict = CheckMessage(bare, len, username) ? "username kept" : "username left out";
    g_verdict += std::string(", key ") + BuildAndCheck(table, key, false, username);
    // Any part of the key finds it: it is the only entry.
    g_verdict += std::string(", part of key ") +
                 BuildAndCheck(table, key.substr(key.size() / 3, key.size() / 2), true, username);

    // The rest, as a raw record through the exports: fields need not be
    // terminated, and are read only within the record.
    if (size - pos >= sizeof(StunIceInfo)) {
        StunIceInfo info;
        std::memcpy(&info, data + pos, sizeof info);
        const std::string_view ufrag(info.ufrag, strnlen(info.ufrag, sizeof info.ufrag));
        CHECK(MORL_StunSetLocalIceInfo("fuzz_raw", &info) == 0);
        CHECK(MORL_StunSetRemoteIceInfo("fuzz_raw", &info) == 0);
        g_verdict += std::string(", raw record ") + BuildAndCheck(StunManager::Instance(), "fuzz_raw", false,
                                                                  std::string(ufrag) + ":" + std::string(ufrag));
        CHECK(MORL_StunClearIceInfo("fuzz_raw") == 0);
    } else {
        g_verdict += ", no raw record";
    }
    return 0;
}

std::string FuzzVerdict() { return g_verdict; }
