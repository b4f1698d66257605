// The quality server's table of clients: a fixed pool of entries, an
// open-addressing index over them (linear probing, deletion by backward
// shift) and a list from the most to the least recently seen. Runs on the
// server thread, and on a reader's thread under the server's mutex.
#include "bwdetect/detect_server.h"

#include "commonlib/zeph_commonlib.h"

namespace {

// splitmix64's finaliser: every input bit reaches every output bit.
uint64_t mix(uint64_t x) {
    x ^= x >> 30;
    x *= 0xBF58476D1CE4E5B9ULL;
    x ^= x >> 27;
    x *= 0x94D049BB133111EBULL;
    x ^= x >> 31;
    return x;
}

uint32_t slots_for(uint32_t capacity) {
    uint32_t n = 2;
    while (n < capacity * 2) n <<= 1;
    return n;
}

} // namespace

DetectServerClients::DetectServerClients(uint32_t capacity)
    : m_entries(capacity > 0 ? capacity : 1), m_slots(slots_for(static_cast<uint32_t>(m_entries.size())), 0) {
    m_slot_mask = static_cast<uint32_t>(m_slots.size()) - 1;
    // Without random bytes the table still works; only its spread is then
    // foreseeable.
    ZEPH_CPYPT_RealRandom(m_hash_key, sizeof m_hash_key);
}

uint64_t DetectServerClients::hash(const DetectServerClientKey& key) const {
    const uint64_t where = (uint64_t(key.addr) << 16) | key.port;
    return mix(mix(where ^ m_hash_key[0]) ^ key.session ^ m_hash_key[1]);
}

uint32_t DetectServerClients::find_slot(const DetectServerClientKey& key) const {
    uint32_t slot = static_cast<uint32_t>(hash(key)) & m_slot_mask;
    // At most half the slots are taken, so an empty one ends every search.
    while (m_slots[slot] != 0 && !(m_entries[m_slots[slot] - 1].key == key)) slot = (slot + 1) & m_slot_mask;
    return slot;
}

void DetectServerClients::erase_slot(uint32_t slot) {
    // Move later members of the probe run back into the hole, so that no
    // search stops early at it.
    uint32_t hole = slot;
    uint32_t next = (slot + 1) & m_slot_mask;
    while (m_slots[next] != 0) {
        const uint32_t home = static_cast<uint32_t>(hash(m_entries[m_slots[next] - 1].key)) & m_slot_mask;
        // The member may fill the hole when its home does not lie in (hole, next].
        const bool home_after_hole = ((next - home) & m_slot_mask) < ((next - hole) & m_slot_mask);
        if (!home_after_hole) {
            m_slots[hole] = m_slots[next];
            hole = next;
        }
        next = (next + 1) & m_slot_mask;
    }
    m_slots[hole] = 0;
}

void DetectServerClients::unlink(uint32_t index) {
    Entry& e = m_entries[index];
    if (e.newer != kNone) m_entries[e.newer].older = e.older;
    else m_newest = e.older;
    if (e.older != kNone) m_entries[e.older].newer = e.newer;
    else m_oldest = e.newer;
    e.newer = e.older = kNone;
}

void DetectServerClients::link_newest(uint32_t index) {
    Entry& e = m_entries[index];
    e.newer = kNone;
    e.older = m_newest;
    if (m_newest != kNone) m_entries[m_newest].newer = index;
    m_newest = index;
    if (m_oldest == kNone) m_oldest = index;
}

DetectServerClients::Entry& DetectServerClients::touch(const DetectServerClientKey& key, int64_t now) {
    uint32_t slot = find_slot(key);
    uint32_t index;
    if (m_slots[slot] != 0) {
        index = m_slots[slot] - 1;
        unlink(index);
    } else {
        if (m_size < m_entries.size()) {
            index = m_size++;
        } else {
            index = m_oldest;
            unlink(index);
            erase_slot(find_slot(m_entries[index].key));
            slot = find_slot(key); // the shift may have moved the hole
        }
        m_entries[index] = Entry();
        m_entries[index].key = key;
        m_entries[index].first_seen = now;
        m_slots[slot] = index + 1;
    }
    link_newest(index);
    Entry& e = m_entries[index];
    e.last_seen = now;
    ++e.packets;
    return e;
}

uint32_t DetectServerClients::pairs(const Entry& entry, Pair out[kRingSize]) {
    const uint32_t filled = entry.data_packets < kRingSize ? static_cast<uint32_t>(entry.data_packets) : kRingSize;
    for (uint32_t i = 0; i < filled; ++i) out[i] = entry.ring[i];
    return filled;
}

void DetectServerClients::remember(Entry& entry, uint32_t seq, uint32_t time) {
    entry.ring[entry.data_packets % kRingSize] = Pair{seq, time};
    ++entry.data_packets;
}

void DetectServerClients::snapshot(std::vector<DetectServerClientInfo>& out) const {
    out.clear();
    out.reserve(m_size);
    for (uint32_t i = m_newest; i != kNone; i = m_entries[i].older) {
        const Entry& e = m_entries[i];
        DetectServerClientInfo info;
        info.key = e.key;
        info.packets = e.packets;
        info.first_seen = e.first_seen;
        info.last_seen = e.last_seen;
        out.push_back(info);
    }
}
