// ICE credential table and STUN Binding Request builder.
#include "mediaSocket/StunManager.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "commonlib/zeph_commonlib.h"
#include "inc/byte_io.h"
#include "inc/net_tools_log.h"
#include "inc/stun_wire.h"
#include "mediaSocket/PrivateHead.h"

namespace {

// A built message stays below 256 bytes: its length (bytes behind the
// 20-byte header) never reaches 236. An attribute that would break the
// limit is left out.
constexpr size_t kMaxMessageLength = 236;
constexpr uint32_t kMaxStunPacket = 256;

// The text of a fixed-size field, up to its terminator or the field's end,
// whichever comes first: a record without terminators never makes us read
// past the caller's block, nor run a password into a user fragment.
template <size_t N>
std::string_view FieldText(const char (&field)[N])
{
    return std::string_view(field, strnlen(field, N));
}

void ClearTableAtExit()
{
    StunManager::Instance().StunClearAll();
}

} // namespace

void WipeSecret(std::string& secret)
{
    if (!secret.empty()) {
        // Through a volatile pointer, so that the stores are not dropped as
        // dead before the buffer is freed.
        volatile char* p = &secret[0];
        for (size_t i = 0; i < secret.size(); ++i) {
            p[i] = '*';
        }
    }
    secret.clear();
}

PacketInfo::~PacketInfo()
{
    WipeSecret(localPassword);
    WipeSecret(remotePassword);
}

StunManager& StunManager::Instance()
{
    static StunManager& instance = *[] {
        auto* manager = new StunManager;
        std::atexit(ClearTableAtExit);
        return manager;
    }();
    return instance;
}

uint32_t StunManager::StunSetIceInfo(const std::string& key, const StunIceInfo* info, uint32_t type)
{
    if (info == nullptr) {
        NT_LOGE("StunSetIceInfo error! pStunIceInfo is null! key: [%s], type: %d", key.c_str(), static_cast<int>(type));
        return ZEPH_STUN_ERR_PARAM;
    }
    return StunSetIceInfo(key, FieldText(info->ufrag), FieldText(info->password), type);
}

uint32_t StunManager::StunSetIceInfo(const std::string& key, std::string_view ufrag, std::string_view password,
                                     uint32_t type)
{
    uint32_t result = ZEPH_STUN_OK;
    {
        std::unique_lock<std::shared_mutex> lock(m_lock);
        auto it = m_ice_map.find(key);
        if (it == m_ice_map.end()) {
            try {
                it = m_ice_map.emplace(key, std::make_shared<PacketInfo>()).first;
            } catch (const std::bad_alloc&) {
                result = ZEPH_STUN_ERR_NO_MEMORY;
            }
        }
        if (result == ZEPH_STUN_OK && (type == kLocal || type == kRemote)) {
            PacketInfo& info = *it->second;
            std::string& ufragField = type == kLocal ? info.localUfrag : info.remoteUfrag;
            std::string& passwordField = type == kLocal ? info.localPassword : info.remotePassword;
            // The old password is overwritten in place before the new one is
            // stored: a buffer that the assignment gives back holds no secret.
            WipeSecret(passwordField);
            try {
                ufragField.assign(ufrag.data(), ufrag.size());
                passwordField.assign(password.data(), password.size());
            } catch (const std::bad_alloc&) {
                // Leave this side empty rather than half replaced.
                WipeSecret(passwordField);
                ufragField.clear();
                result = ZEPH_STUN_ERR_NO_MEMORY;
            }
        }
    }
    if (result == ZEPH_STUN_ERR_NO_MEMORY) {
        NT_LOGE("StunSetIceInfo error! new mem failed! key: [%s], type: %d", key.c_str(), static_cast<int>(type));
        return result;
    }
    NT_LOGI("StunSetIceInfo success! key: [%s], type: %d", key.c_str(), static_cast<int>(type));
    return ZEPH_STUN_OK;
}

uint32_t StunManager::StunClearIceInfo(const std::string& key)
{
    std::shared_ptr<PacketInfo> dropped;
    {
        std::unique_lock<std::shared_mutex> lock(m_lock);
        auto it = m_ice_map.find(key);
        if (it != m_ice_map.end()) {
            dropped = std::move(it->second);
            m_ice_map.erase(it);
        }
    }
    // `dropped` goes here, outside the lock; its destructor wipes the passwords.
    return ZEPH_STUN_OK;
}

void StunManager::StunClearAll()
{
    std::map<std::string, std::shared_ptr<PacketInfo>> dropped;
    {
        std::unique_lock<std::shared_mutex> lock(m_lock);
        dropped.swap(m_ice_map);
    }
}

uint32_t StunManager::StunSetChannelId(const std::string& key, uint32_t channelId)
{
    uint32_t result = ZEPH_STUN_OK;
    {
        std::unique_lock<std::shared_mutex> lock(m_lock);
        auto it = m_ice_map.find(key);
        if (it == m_ice_map.end()) {
            result = ZEPH_STUN_ERR_NOT_FOUND;
        } else if (!it->second) {
            result = ZEPH_STUN_ERR_NO_RECORD;
        } else {
            it->second->channelId = channelId;
        }
    }
    switch (result) {
    case ZEPH_STUN_ERR_NOT_FOUND:
        NT_LOGE("StunSetChannelId error! not found key! key: [%s], channelId: %u", key.c_str(), channelId);
        break;
    case ZEPH_STUN_ERR_NO_RECORD:
        NT_LOGE("StunSetChannelId error! ice info is null! key: [%s], channelId: %u", key.c_str(), channelId);
        break;
    default: NT_LOGI("StunSetChannelId success! key: [%s], channelId: %u", key.c_str(), channelId); break;
    }
    return result;
}

uint32_t StunManager::StunGetChannelId(const std::string& key, uint32_t* channelId)
{
    if (channelId == nullptr) {
        return ZEPH_STUN_ERR_PARAM;
    }
    uint32_t result = ZEPH_STUN_OK;
    {
        std::shared_lock<std::shared_mutex> lock(m_lock);
        auto it = m_ice_map.find(key);
        if (it == m_ice_map.end()) {
            result = ZEPH_STUN_ERR_NOT_FOUND;
        } else if (!it->second) {
            result = ZEPH_STUN_ERR_NO_RECORD;
        } else {
            *channelId = it->second->channelId;
        }
    }
    if (result == ZEPH_STUN_ERR_NOT_FOUND) {
        NT_LOGE("StunGetChannelId error! not found key! key: [%s]", key.c_str());
    } else if (result == ZEPH_STUN_ERR_NO_RECORD) {
        NT_LOGE("StunGetChannelId error! ice info is null! key: [%s]", key.c_str());
    }
    return result;
}

size_t StunManager::Size() const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    return m_ice_map.size();
}

// Exact look-up, or with `fuzzy` the first entry in ascending key order
// whose key contains `key` (the empty text matches the first entry).
uint32_t StunManager::FindForBuild(const std::string& key, bool fuzzy, BuildInput& out) const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    auto it = m_ice_map.end();
    if (fuzzy) {
        it = std::find_if(m_ice_map.begin(), m_ice_map.end(),
                          [&key](const auto& entry) { return entry.first.find(key) != std::string::npos; });
    } else {
        it = m_ice_map.find(key);
    }
    if (it == m_ice_map.end()) {
        return ZEPH_STUN_ERR_NOT_FOUND;
    }
    if (!it->second) {
        out.key = it->first;
        return ZEPH_STUN_ERR_NO_RECORD;
    }
    const PacketInfo& info = *it->second;
    out.key = it->first;
    out.channelId = info.channelId;
    out.username.reserve(info.remoteUfrag.size() + 1 + info.localUfrag.size());
    out.username = info.remoteUfrag;
    out.username += ':';
    out.username += info.localUfrag;
    return ZEPH_STUN_OK;
}

bool StunManager::AddStunHead(uint8_t* data, uint32_t size)
{
    zeph::stun::Header head;
    head.type = zeph::stun::kBindingRequest;
    head.length = 0;
    if (ZEPH_CPYPT_RealRandom(head.txid, sizeof head.txid) != 0) {
        return false;
    }
    zeph::ByteWriter w(data, size);
    return zeph::stun::write_header(w, head);
}

// A username too long for the packet is left out; the packet goes on
// without it, so this step has no failure of its own.
void StunManager::AddAttrUserName(uint8_t* data, uint32_t size, const std::string& username)
{
    (void)zeph::stun::append_attribute(data, size, zeph::stun::kAttrUsername, username.data(), username.size(),
                                       kMaxMessageLength);
}

// MESSAGE-INTEGRITY carries the SHA-1 digest (digest 0 of the common
// library) of the message from its first byte to the end of the attributes
// before it, taken while the header's length already counts this
// attribute. The digest is not keyed: the passwords stay in the table.
bool StunManager::AddAttrIntegrity(uint8_t* data, uint32_t size)
{
    uint16_t length = 0;
    if (!zeph::stun::read_length(data, size, length)) {
        return false;
    }
    const size_t attr = zeph::stun::kAttrHeaderSize + zeph::stun::kIntegritySize;
    if (!zeph::stun::write_length(data, size, static_cast<uint16_t>(length + attr))) {
        return false;
    }
    uint8_t digest[zeph::stun::kIntegritySize] = {};
    uint32_t digestLen = sizeof digest;
    if (ZEPH_CRYPT_digest(0, data, static_cast<uint32_t>(zeph::stun::kHeaderSize + length), digest, &digestLen) != 0 ||
        digestLen != sizeof digest) {
        return false; // the length field still counts the attribute: the packet must not be sent
    }
    zeph::stun::write_length(data, size, length);
    (void)zeph::stun::append_attribute(data, size, zeph::stun::kAttrMessageIntegrity, digest, sizeof digest,
                                       kMaxMessageLength);
    return true;
}

// FINGERPRINT: CRC-32 of the message before it, taken while the header's
// length already counts this attribute, XOR 0x5354554E.
void StunManager::AddAttrFingerPrint(uint8_t* data, uint32_t size)
{
    uint16_t length = 0;
    if (!zeph::stun::read_length(data, size, length)) {
        return;
    }
    const size_t attr = zeph::stun::kAttrHeaderSize + zeph::stun::kFingerprintSize;
    zeph::stun::write_length(data, size, static_cast<uint16_t>(length + attr));
    const uint32_t value = zeph::stun::fingerprint_value(data, zeph::stun::kHeaderSize + length);
    zeph::stun::write_length(data, size, length);
    uint8_t be[zeph::stun::kFingerprintSize];
    zeph::ByteWriter w(be, sizeof be);
    w.put_be32(value);
    (void)zeph::stun::append_attribute(data, size, zeph::stun::kAttrFingerprint, be, sizeof be, kMaxMessageLength);
}

uint32_t StunManager::BuildStun(const BuildInput& in, uint8_t* data, uint32_t* dataLen)
{
    const uint32_t size = *dataLen;
    if (!AddStunHead(data, size)) {
        NT_LOGE("StunBuildStunPacket error! AddStunHead failed! key: [%s]", in.key.c_str());
        return ZEPH_STUN_ERR_BUILD;
    }
    AddAttrUserName(data, size, in.username);
    if (!AddAttrIntegrity(data, size)) {
        NT_LOGE("StunBuildStunPacket error! AddAttrIntegrity failed! key: [%s]", in.key.c_str());
        return ZEPH_STUN_ERR_BUILD;
    }
    AddAttrFingerPrint(data, size);
    uint16_t length = 0;
    zeph::stun::read_length(data, size, length);
    *dataLen = std::min<uint32_t>(length + static_cast<uint32_t>(zeph::stun::kHeaderSize), kMaxStunPacket);
    return ZEPH_STUN_OK;
}

uint32_t StunManager::StunBuildStunPacket(const std::string& key, uint8_t* data, uint32_t* dataLen)
{
    if (data == nullptr || dataLen == nullptr || *dataLen < kStunBufSize) {
        NT_LOGE("StunBuildStunPacket error! data or dataLen is null or *dataLen < %d; key: [%s]",
                static_cast<int>(kStunBufSize), key.c_str());
        return ZEPH_STUN_ERR_PARAM;
    }
    BuildInput in;
    const uint32_t found = FindForBuild(key, false, in);
    if (found == ZEPH_STUN_ERR_NOT_FOUND) {
        NT_LOGE("StunBuildStunPacket error! not found key! key: [%s]", key.c_str());
        return found;
    }
    if (found == ZEPH_STUN_ERR_NO_RECORD) {
        NT_LOGE("StunBuildStunPacket error! ice info is null! key: [%s]", key.c_str());
        return found;
    }
    return BuildStun(in, data, dataLen);
}

uint32_t StunManager::StunBuildPacket(const std::string& key, uint8_t* data, uint32_t* dataLen, bool fuzzy)
{
    if (data == nullptr || dataLen == nullptr || *dataLen < kPacketBufSize) {
        NT_LOGE("StunBuildPacket error! data or dataLen is null or *dataLen < %d; key: [%s]",
                static_cast<int>(kPacketBufSize), key.c_str());
        return ZEPH_STUN_ERR_PARAM;
    }
    // One look-up serves the head and the packet, so both come from the
    // same entry even while other threads change the table.
    BuildInput in;
    const uint32_t found = FindForBuild(key, fuzzy, in);
    if (found == ZEPH_STUN_ERR_NOT_FOUND) {
        NT_LOGE("StunBuildPacket error! dnot found key! key: [%s]", key.c_str());
        return found;
    }
    if (found == ZEPH_STUN_ERR_NO_RECORD) {
        NT_LOGE("StunBuildStunPacket error! ice info is null! key: [%s]", in.key.c_str());
        return found;
    }
    uint32_t stunLen = *dataLen - kPrivateHeadSize;
    const uint32_t result = BuildStun(in, data + kPrivateHeadSize, &stunLen);
    if (result != ZEPH_STUN_OK) {
        return result;
    }
    BuildPrivateHead(kPktTypeStunPrivate, 1, in.channelId, 0, stunLen, data);
    *dataLen = stunLen + kPrivateHeadSize;
    return ZEPH_STUN_OK;
}

// ---- exports ----------------------------------------------------------------------

namespace {

// Runs one export body; no exception crosses the library boundary.
template <typename Fn>
uint32_t StunExport(const char* key, Fn&& body)
{
    if (key == nullptr) {
        return ZEPH_STUN_ERR_PARAM;
    }
    try {
        return body(std::string(key));
    } catch (const std::bad_alloc&) {
        return ZEPH_STUN_ERR_NO_MEMORY;
    } catch (...) {
        return ZEPH_STUN_ERR_BUILD;
    }
}

} // namespace

extern "C" {

ZEPH_API uint32_t MORL_StunSetLocalIceInfo(const char* key, const StunIceInfo* info)
{
    return StunExport(key, [&](const std::string& k) {
        return StunManager::Instance().StunSetIceInfo(k, info, StunManager::kLocal);
    });
}

ZEPH_API uint32_t MORL_StunSetRemoteIceInfo(const char* key, const StunIceInfo* info)
{
    return StunExport(key, [&](const std::string& k) {
        return StunManager::Instance().StunSetIceInfo(k, info, StunManager::kRemote);
    });
}

ZEPH_API uint32_t MORL_StunClearIceInfo(const char* key)
{
    return StunExport(key, [&](const std::string& k) { return StunManager::Instance().StunClearIceInfo(k); });
}

ZEPH_API uint32_t MORL_StunSetChannelId(const char* key, uint32_t channelId)
{
    return StunExport(key,
                      [&](const std::string& k) { return StunManager::Instance().StunSetChannelId(k, channelId); });
}

ZEPH_API uint32_t MORL_StunGetChannelId(const char* key, uint32_t* channelId)
{
    return StunExport(key,
                      [&](const std::string& k) { return StunManager::Instance().StunGetChannelId(k, channelId); });
}

ZEPH_API uint32_t MORL_StunBuildStunPacket(const char* key, uint8_t* data, uint32_t* dataLen)
{
    return StunExport(
        key, [&](const std::string& k) { return StunManager::Instance().StunBuildStunPacket(k, data, dataLen); });
}

ZEPH_API uint32_t MORL_StunBuildPacket(const char* key, uint8_t* data, uint32_t* dataLen)
{
    return StunExport(
        key, [&](const std::string& k) { return StunManager::Instance().StunBuildPacket(k, data, dataLen, false); });
}

ZEPH_API uint32_t MORL_StunBuildPacketOfFuzzyMatchKey(const char* key, uint8_t* data, uint32_t* dataLen)
{
    return StunExport(
        key, [&](const std::string& k) { return StunManager::Instance().StunBuildPacket(k, data, dataLen, true); });
}

ZEPH_API uint32_t MORL_StunGetPrivateHeadSize(void)
{
    return static_cast<uint32_t>(kPrivateHeadSize);
}

} // extern "C"
