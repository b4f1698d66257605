// Process-wide table of ICE credentials by key, and the builder of the
// STUN Binding Requests (USERNAME, MESSAGE-INTEGRITY, FINGERPRINT) that the
// media transport and the probe sockets send for a key.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "zeph_nettools/stun.h"

// One key's credentials. The passwords never leave this record: a packet
// is built from the user fragments alone, and both passwords are
// overwritten before their memory is given back, whichever way the record
// goes (cleared, replaced, or the table emptied at exit).
struct PacketInfo {
    uint32_t channelId = 0;
    std::string localUfrag;
    std::string localPassword;
    std::string remoteUfrag;
    std::string remotePassword;

    PacketInfo() = default;
    ~PacketInfo();
    PacketInfo(const PacketInfo&) = delete;
    PacketInfo& operator=(const PacketInfo&) = delete;
};

// Overwrites every byte of a secret with '*' (in a way the compiler keeps)
// and empties it; its buffer stays allocated and now holds no secret.
void WipeSecret(std::string& secret);

class StunManager {
public:
    // Sides of StunSetIceInfo.
    static constexpr uint32_t kLocal = 1;
    static constexpr uint32_t kRemote = 2;
    static constexpr uint32_t kStunBufSize = ZEPH_STUN_PACKET_BUF_SIZE;
    static constexpr uint32_t kPacketBufSize = ZEPH_STUN_PRIVATE_PACKET_BUF_SIZE;

    // The process's table: made at the first use, never destroyed (media
    // and probe threads may still build packets while the process exits);
    // its records are cleared, and their passwords wiped, at exit.
    static StunManager& Instance();

    StunManager() = default;
    StunManager(const StunManager&) = delete;
    StunManager& operator=(const StunManager&) = delete;

    uint32_t StunSetIceInfo(const std::string& key, const StunIceInfo* info, uint32_t type);
    // The same with the two texts given directly, of any length.
    uint32_t StunSetIceInfo(const std::string& key, std::string_view ufrag, std::string_view password, uint32_t type);
    uint32_t StunClearIceInfo(const std::string& key);
    void StunClearAll();
    uint32_t StunSetChannelId(const std::string& key, uint32_t channelId);
    uint32_t StunGetChannelId(const std::string& key, uint32_t* channelId);

    uint32_t StunBuildStunPacket(const std::string& key, uint8_t* data, uint32_t* dataLen);
    uint32_t StunBuildPacket(const std::string& key, uint8_t* data, uint32_t* dataLen, bool fuzzy);

    size_t Size() const;

private:
    // What a build needs of an entry, copied under the lock: never a password.
    struct BuildInput {
        std::string key; // the entry's own key
        uint32_t channelId = 0;
        std::string username; // remoteUfrag ":" localUfrag
    };

    uint32_t FindForBuild(const std::string& key, bool fuzzy, BuildInput& out) const;
    uint32_t BuildStun(const BuildInput& in, uint8_t* data, uint32_t* dataLen);

    static bool AddStunHead(uint8_t* data, uint32_t size);
    static void AddAttrUserName(uint8_t* data, uint32_t size, const std::string& username);
    static bool AddAttrIntegrity(uint8_t* data, uint32_t size);
    static void AddAttrFingerPrint(uint8_t* data, uint32_t size);

    // Callers on many threads (host, media threads, probe sockets) use the
    // table at once: builds share the lock, changes take it alone, and each
    // reads or changes an entry whole. Nothing is logged under it.
    mutable std::shared_mutex m_lock;
    std::map<std::string, std::shared_ptr<PacketInfo>> m_ice_map;
};
