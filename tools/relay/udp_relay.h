// A UDP relay that impairs traffic: it listens on one address, forwards
// every client's datagrams to a fixed server and the server's answers back
// to that client, adding one-way delay, jitter and loss per direction.
//
// There is no kernel traffic shaping on our machines; this relay is how the
// net detections are checked against a known truth.
//
// Determinism: each direction draws from its own generator seeded from the
// configured seed, three draws per datagram in the order the relay receives
// them in that direction, whether or not the datagram is dropped. So the
// same seed and the same order of datagrams give the same drops and delays.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>

namespace zeph_relay {

enum class JitterModel {
    Uniform, // delay + U(-jitter, +jitter)
    Normal,  // delay + N(0, jitter), jitter being the standard deviation
};

struct Impairment {
    double delay_ms = 0;  // one-way delay added to every datagram
    double jitter_ms = 0; // see JitterModel; the sum is never below 0
    double loss = 0;      // probability that a datagram is dropped, 0..1
};

// The decisions for one direction, free of sockets.
class ImpairmentModel {
public:
    ImpairmentModel(const Impairment& imp, JitterModel model, uint64_t seed);

    // Draws the fate of the next datagram: false when it is dropped,
    // otherwise true with the delay to apply in `delay_ms`.
    bool next(double& delay_ms);

private:
    double uniform01();

    Impairment m_imp;
    JitterModel m_model;
    std::mt19937_64 m_gen; // its output is fixed by the C++ standard: same draws everywhere
};

struct UdpRelayConfig {
    std::string listen_ip = "127.0.0.1";
    uint16_t listen_port = 0; // 0 picks a free port
    std::string server_ip = "127.0.0.1";
    uint16_t server_port = 0;
    Impairment to_server; // client -> server
    Impairment to_client; // server -> client
    JitterModel jitter_model = JitterModel::Uniform;
    // Jitter reorders datagrams whose delays cross. With keep_order a
    // datagram never leaves before one received earlier in the same
    // direction (it waits for it), as on a single FIFO link.
    bool keep_order = false;
    uint64_t seed = 1;
    // Each client address gets its own socket towards the server, so that
    // answers find their way back; beyond this many clients datagrams of
    // new clients are refused (counted in `refused`).
    size_t max_clients = 1024;
};

struct UdpRelayStats {
    uint64_t to_server_forwarded = 0;
    uint64_t to_server_dropped = 0;
    uint64_t to_client_forwarded = 0;
    uint64_t to_client_dropped = 0;
    uint64_t refused = 0;
};

class UdpRelay {
public:
    explicit UdpRelay(UdpRelayConfig config);
    // Stops the relay thread; datagrams still held back are discarded.
    ~UdpRelay();
    UdpRelay(const UdpRelay&) = delete;
    UdpRelay& operator=(const UdpRelay&) = delete;

    // Binds and starts the relay thread. 0, or -1 with `error` filled.
    int start(std::string* error = nullptr);
    void stop();

    const std::string& listen_ip() const;
    uint16_t port() const;
    UdpRelayStats stats() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace zeph_relay
