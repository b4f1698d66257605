// DetectServer: the instance, start and stop, the socket's binding, the
// validity check and the building of each answer. start_server, stop_server
// and the instance functions run on the caller's thread; answer runs on the
// server thread (detect_server_loop.cpp).
#include "bwdetect/detect_server.h"

#include <new>
#include <system_error>

#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"
#include "securec/securec.h"

namespace q = zeph::quality;

namespace {

std::mutex g_instance_mutex;
DetectServer* g_instance = nullptr;

// A data packet whose number, counted from the thread's start, leaves this
// remainder modulo kSeqLogEvery is logged at debug level.
constexpr uint64_t kSeqLogEvery = 500;
constexpr uint64_t kSeqLogRemainder = 1;
// A hostile sender must not flood the log: repeated invalid packets are
// logged once per this many, starting with the first.
constexpr uint64_t kInvalidLogEvery = 1024;
// One socket takes the datagrams of every client: its receive buffer rides
// out a few tens of milliseconds in which the server thread gets no core
// at the highest level's rates of many clients. The system may cap it lower.
constexpr int kServerRecvBuffer = 4 * 1024 * 1024;

bool thinned_out(uint64_t count, uint64_t every) { return count % every != 1 % every; }

} // namespace

DetectServer* DetectServer::get_instance() {
    std::lock_guard<std::mutex> lock(g_instance_mutex);
    if (g_instance == nullptr) g_instance = new (std::nothrow) DetectServer();
    return g_instance;
}

void DetectServer::destroy_instance() {
    DetectServer* gone = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_instance_mutex);
        gone = g_instance;
        g_instance = nullptr;
    }
    delete gone; // the destructor stops the thread, outside the lock
}

DetectServer::DetectServer() {
    NT_LOGI("DetectServer");
    const int err = memset_s(m_pkt_buf, sizeof m_pkt_buf, 0, sizeof m_pkt_buf);
    if (err != 0) NT_LOGE("secure function return error err=%d", err);
}

DetectServer::~DetectServer() {
    m_inited.exchange(0);
    stop_server();
}

int32_t DetectServer::bind_port(MORL_SOCKET sock) {
    MORL_SockAddrIn addr = {};
    addr.sin_family = MORL_AF_INET;
    addr.sin_port = MORL_Htons(kServerPort);
    addr.sin_addr = zeph_get_local_addr();
    const int ret = MORL_Bind(sock, &addr, sizeof addr);
    if (ret != 0) {
        NT_LOGW("[detect_server] bind_failed port=%d ret=%d", kServerPort, ret);
    } else {
        NT_LOGI("[detect_server] bind_success port=%d", kServerPort);
    }
    return ret;
}

int32_t DetectServer::start_server(uint16_t port) {
    std::lock_guard<std::mutex> lock(m_control);
    NT_LOGI("start_server m_sock=%x", m_sock ? static_cast<unsigned>(*m_sock) : 0u);
    if (m_inited.load() == 0) {
        NT_LOGE("server uninit!");
        return kErrUninit;
    }
    if (m_running.load() != 0) {
        NT_LOGE("server already started!");
        return kErrRunning;
    }
    if (port == 0) {
        NT_LOGE("server_port is zero!");
        return kErrPortZero;
    }
    m_sock = create_socket();
    if (!m_sock) return kErrNoSocket;
    if (MORL_SetSockOpt(*m_sock, MORL_SOL_SOCKET, MORL_SO_RCVBUF, &kServerRecvBuffer, sizeof kServerRecvBuffer) != 0) {
        NT_LOGW("receive buffer of %d bytes refused, error=%d", kServerRecvBuffer, MORL_GetLastSocketErr());
    }
    set_running(1);
    try {
        m_thread = std::thread(&DetectServer::server_recv_thread, this, m_sock);
    } catch (const std::system_error& e) {
        NT_LOGE("thread start failed: %s", e.what());
        set_running(0);
        m_sock.reset();
        return kErrNoSocket;
    }
    return kStarted;
}

void DetectServer::stop_server() {
    std::thread leaving;
    {
        std::lock_guard<std::mutex> lock(m_control);
        set_running(0);
        leaving = std::move(m_thread);
    }
    // The loop sees the flag within one poll wait; it holds no lock of ours.
    if (leaving.joinable()) leaving.join();
    std::lock_guard<std::mutex> lock(m_control);
    if (m_running.load() == 0) m_sock.reset();
}

int32_t DetectServer::recv_pkt_is_valid(const uint8_t* pkt, size_t len) {
    const uint16_t type = q::get_type(pkt, len, false);
    if (type < q::kTypeData || type > q::kTypeEnd) {
        if (!thinned_out(m_invalid_count + 1, kInvalidLogEvery)) NT_LOGI("type=%x", type);
        return 0;
    }
    return base_pkt_is_valid(pkt, len, q::kSeqNoLimit);
}

bool DetectServer::is_auth_request(const uint8_t* pkt, size_t len) const {
    // Streams that carry their token in every packet send their data as
    // type 2 as well. Such a packet tells the length of what follows its
    // head and region; an auth request tells its whole length (or has no
    // room for a payload at all).
    if (len < q::kHeadRegionSize) return true;
    return q::get_len(pkt, len, false) != len - q::kHeadRegionSize;
}

size_t DetectServer::answer(uint8_t* pkt, size_t len, const DetectServerClientKey& from, int64_t now) {
    if (recv_pkt_is_valid(pkt, len) == 0) {
        ++m_invalid_count;
        if (!thinned_out(m_invalid_count, kInvalidLogEvery)) NT_LOGE("server_recv_thread invalid pkt");
        return 0;
    }
    // The client keeps 0 for "no time"; a real 0 goes out as 1.
    uint32_t stamp = static_cast<uint32_t>(now);
    if (stamp == 0) stamp = 1;
    const uint16_t type = q::get_type(pkt, len, false);
    DetectServerClientKey key = from;
    key.session = q::get_session(pkt, len, false);

    std::lock_guard<std::mutex> lock(m_clients_mutex);
    DetectServerClients::Entry& client = m_clients.touch(key, now);
    if (type == q::kTypeEnd) {
        q::set_type(pkt, len, false, q::kTypeEndResp);
        q::set_time(pkt, len, stamp);
        return len;
    }
    if (type == q::kTypeAuth && is_auth_request(pkt, len)) {
        q::set_type(pkt, len, false, q::kTypeAuthResp);
        q::set_auth_result(pkt, len, q::kAuthAccepted);
        q::set_time(pkt, len, stamp);
        return len;
    }
    // A data packet: its pairs are the client's earlier data packets, in the
    // order of the ring's slots; the packet at hand is not among them. A
    // datagram too short for a field carries it as far as it goes.
    q::set_time(pkt, len, stamp);
    DetectServerClients::Pair pairs[DetectServerClients::kRingSize];
    const uint32_t count = DetectServerClients::pairs(client, pairs);
    for (uint32_t i = 0; i < count; ++i) {
        q::set_pair_seq(pkt, len, i, pairs[i].seq);
        q::set_pair_time(pkt, len, i, pairs[i].time);
    }
    q::set_pair_count(pkt, len, static_cast<uint8_t>(count));
    q::set_type(pkt, len, false, q::kTypeDataResp);
    q::set_status(pkt, len, q::kStatusOk);
    const uint32_t seq = q::get_seq(pkt, len);
    ++m_data_count;
    if (m_data_count % kSeqLogEvery == kSeqLogRemainder) NT_LOGD("srv recv seq=%5d time=%d", int(seq), int(stamp));
    DetectServerClients::remember(client, seq, stamp);
    return len;
}

std::vector<DetectServerClientInfo> DetectServer::clients() const {
    std::vector<DetectServerClientInfo> out;
    std::lock_guard<std::mutex> lock(m_clients_mutex);
    m_clients.snapshot(out);
    return out;
}

int64_t DetectServer::clock_of(int64_t counter) const { return counter_to_ms(counter - m_start_time, m_freq_time); }
