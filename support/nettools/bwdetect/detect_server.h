// DetectServer: the answering end of the quality probe. One UDP socket on
// port 64000 of the local address, one thread that answers every valid
// packet at once and stamps it with the server's clock, and in each data
// answer the reception times of that client's last eight data packets.
// Every auth request and every token is accepted.
//
// Threads: start_server, stop_server, clients and the instance functions run
// on the caller's thread; the receive loop runs on the server thread, which
// start_server starts and stop_server ends and joins. The client table is
// shared by the two under its own mutex, taken per packet and per snapshot.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "bwdetect/detect_base.h"

// A client of the server: source address and port, and the session its
// packets carry. Two streams from one socket are two clients.
struct DetectServerClientKey {
    uint32_t addr = 0;    // network order
    uint16_t port = 0;    // host order
    uint32_t session = 0; // pkt_session as it came
    bool operator==(const DetectServerClientKey& o) const {
        return addr == o.addr && port == o.port && session == o.session;
    }
};

// What the server knows of one client, for reports.
struct DetectServerClientInfo {
    DetectServerClientKey key;
    uint64_t packets = 0;    // valid packets answered, of every type
    int64_t first_seen = 0;  // server clock, ms
    int64_t last_seen = 0;   // server clock, ms
};

// The clients' table: one ring of the last eight data packets per client,
// bounded in number; when it is full a new client takes the place of the one
// seen longest ago. No allocation after construction; a keyed hash keeps
// chosen addresses and sessions from piling onto one slot. Not locked: its
// owner serialises it.
class DetectServerClients {
public:
    struct Pair {
        uint32_t seq;
        uint32_t time;
    };
    static constexpr uint32_t kRingSize = zeph::quality::kMaxPairs;
    struct Entry {
        DetectServerClientKey key;
        uint64_t packets = 0;
        uint64_t data_packets = 0; // the ring's slot of the next data packet is this modulo kRingSize
        int64_t first_seen = 0;
        int64_t last_seen = 0;
        Pair ring[kRingSize] = {};
        uint32_t newer = kNone; // toward the most recently seen
        uint32_t older = kNone; // toward the least recently seen
    };

    explicit DetectServerClients(uint32_t capacity);
    DetectServerClients(const DetectServerClients&) = delete;
    DetectServerClients& operator=(const DetectServerClients&) = delete;

    // The client's entry, made if new (replacing the least recently seen
    // when the table is full), counted as seen now with one more packet.
    Entry& touch(const DetectServerClientKey& key, int64_t now);
    // The ring's filled slots in slot order (not by time) into out; their number.
    static uint32_t pairs(const Entry& entry, Pair out[kRingSize]);
    // Puts a data packet into the ring.
    static void remember(Entry& entry, uint32_t seq, uint32_t time);

    uint32_t size() const { return m_size; }
    uint32_t capacity() const { return static_cast<uint32_t>(m_entries.size()); }
    void snapshot(std::vector<DetectServerClientInfo>& out) const;

private:
    static constexpr uint32_t kNone = 0xFFFFFFFF;
    uint64_t hash(const DetectServerClientKey& key) const;
    // Slot of the index table that holds key, or the empty slot where it would go.
    uint32_t find_slot(const DetectServerClientKey& key) const;
    void erase_slot(uint32_t slot);
    void unlink(uint32_t index);
    void link_newest(uint32_t index);

    std::vector<Entry> m_entries;
    std::vector<uint32_t> m_slots; // entry index + 1; 0 is empty. Twice the capacity, a power of two
    uint32_t m_slot_mask = 0;
    uint32_t m_size = 0;
    uint32_t m_newest = kNone;
    uint32_t m_oldest = kNone;
    uint64_t m_hash_key[2] = {};
};

class DetectServer : public DetectBase {
public:
    static constexpr uint16_t kServerPort = 64000;
    static constexpr uint32_t kMaxClients = 4096;

    // Results of start_server.
    static constexpr int32_t kStarted = 0;
    static constexpr int32_t kErrUninit = 20;
    static constexpr int32_t kErrRunning = 21;
    static constexpr int32_t kErrNoSocket = 22;
    static constexpr int32_t kErrPortZero = 26;

    // The one server of the process, made at the first call; null when it
    // cannot be made.
    static DetectServer* get_instance();
    // Stops and deletes it, if there is one.
    static void destroy_instance();

    // Binds zeph_get_local_addr():64000 and starts answering; `port` only
    // has to be non-zero. One of the results above.
    int32_t start_server(uint16_t port);
    // Ends the server thread (waits for it, at most one poll wait) and closes
    // the socket. The clients' table stays.
    void stop_server();

    int32_t bind_port(MORL_SOCKET sock) override;
    // Types 1 to 3 whose head passes the base check.
    int32_t recv_pkt_is_valid(const uint8_t* pkt, size_t len) override;

    // Turns one received datagram of `len` bytes in `pkt` (which holds at
    // least quality::kRecvBufSize bytes) into its answer, in place: the
    // length to send back to `from` (the datagram's own length), or 0 when it
    // gets none. `now` is the server clock at its arrival.
    size_t answer(uint8_t* pkt, size_t len, const DetectServerClientKey& from, int64_t now);

    // The clients in the table, most recently seen first.
    std::vector<DetectServerClientInfo> clients() const;

    // The receive loop of the first design: one datagram per wake-up, a 5 ms
    // sleep when none waits and 1 ms after each data packet. Only the
    // benchmark turns it on, to compare; it applies to the next start.
    static void set_literal_loop(bool enabled);
    static bool literal_loop();

private:
    DetectServer();
    ~DetectServer() override;

    void server_recv_thread(DetectSockPtr sock);
    void run_batched(MORL_SOCKET sock);
    void run_literal(MORL_SOCKET sock);
    // The server clock of a counter value.
    int64_t clock_of(int64_t counter) const;
    // True when a type-2 packet is a request for auth (not a stream packet
    // that carries its token).
    bool is_auth_request(const uint8_t* pkt, size_t len) const;
    void note_send_failure(size_t len, int sent);

    std::mutex m_control; // start and stop
    std::thread m_thread;
    mutable std::mutex m_clients_mutex;
    DetectServerClients m_clients{kMaxClients};
    // Server thread only (and the fuzzer's caller, with no thread running).
    uint64_t m_data_count = 0;
    uint64_t m_invalid_count = 0;
    uint64_t m_send_failures = 0;
};
