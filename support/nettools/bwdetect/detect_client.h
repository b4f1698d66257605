// The quality clients. DetectClientBase holds what they share: the packet
// image, the level, the callback and the binding of a client socket to a
// port from a first port up. DetectClient is the plain client: an auth
// handshake with one server, one stream through an exchanger, and end
// packets after it.
//
// Threads: start_client runs on the caller's thread and starts one detached
// thread ("detect_client") that does the handshake, waits for the
// exchanger's two threads and sends the end packets; the callback runs on
// that thread, with no lock of ours held.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "bwdetect/detect_base.h"
#include "bwdetect/detect_cli_pkt.h"

// DetectQosResult and the callback DetectBwNotify are records of the public
// header (through detect_base.h).

// Results of start_client and of the handshake.
constexpr int32_t DETECT_ERR_NO_SOCKET = 22;
constexpr int32_t DETECT_ERR_BAD_ARGUMENT = 26;
constexpr int32_t DETECT_ERR_AUTH_FAILED = 27;
// Client ports tried from the first one up before binding gives up.
constexpr uint32_t DETECT_BIND_TRIES = 64;
// The port at which quality clients start to bind.
constexpr uint16_t DETECT_FIRST_CLIENT_PORT = 64100;

class DetectClientBase : public DetectBase {
public:
    DetectClientBase() = default;

    // Makes the socket (bound from `cli_port` up, connected to ip:srv_port),
    // builds the image and starts the class's thread. 0,
    // DETECT_ERR_BAD_ARGUMENT (no callback, no ip, a port of 0) or
    // DETECT_ERR_NO_SOCKET.
    int32_t start_client(const char* ip, uint16_t srv_port, uint16_t cli_port);
    // Binds `sock` to the first free port from m_cli_port up, on any local
    // address. 0, or the last port tried after DETECT_BIND_TRIES failures.
    int32_t bind_port(MORL_SOCKET sock) override;
    // Any valid packet of this client's level.
    int32_t recv_pkt_is_valid(const uint8_t* pkt, size_t len) override;
    // Starts the class's thread; the base has none and answers 0.
    virtual int32_t start_send_thread();

    // The image of a client, `length` bytes, private layout.
    void init_send_buf(uint8_t* buf, size_t length);
    // Zeroes `stat` but for its bad-second counters.
    static void init_pkt_stat_data(DetectPktStat& stat);
    void set_level(uint8_t level);
    // An auth (end) response: state 2 or 6 (6) and 1; 0 for anything else.
    int32_t process_recv_auth_pkt(const uint8_t* pkt, size_t len);
    int32_t process_recv_end_pkt(const uint8_t* pkt, size_t len);

protected:
    int32_t m_pkt_len = static_cast<int32_t>(zeph::quality::kImageSize);
    uint8_t m_level = 0;
    uint32_t m_session = 0;
    DetectBwNotify m_callback = nullptr;
};

class DetectClient : public DetectClientBase, public std::enable_shared_from_this<DetectClient> {
public:
    // Make it with std::make_shared: its thread holds it until it ends.
    explicit DetectClient(DetectBwNotify callback);

    int32_t start_send_thread() override;

    // The exchanger of the stream, once the handshake has passed.
    std::shared_ptr<DetectCliPktAnyTime> exchanger() const { return std::atomic_load(&m_exchanger); }

private:
    void client_send_thread();
    // The handshake: 0, or DETECT_ERR_AUTH_FAILED when the server refused
    // or did not answer within 1.5 s.
    int32_t connect_server();

    std::shared_ptr<DetectCliPktAnyTime> m_exchanger;
};
