// Quality peers of the tests: the stand-in's thread receives and answers;
// the test thread reads what it kept under its mutex.
#include "quality_peers.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>

#include "bwdetect/detect_cli_pkt.h"
#include "bwdetect/detect_server.h"
#include "peers.h"
#include "zeph_nettools/settings.h"

namespace q = zeph::quality;

namespace zeph_test {

namespace {
constexpr int kPollMs = 10;
constexpr size_t kMaxDatagram = 65536;
} // namespace

QualityServerOn::QualityServerOn(const std::string& ip) {
    zeph_settings_set_local_addr(ip.c_str());
    m_server = DetectServer::get_instance();
    m_started = m_server && m_server->start_server(kQualityServerPort) == DetectServer::kStarted;
}

QualityServerOn::~QualityServerOn() {
    if (m_server) m_server->stop_server();
}

UdpStandIn::UdpStandIn(const std::string& ip, uint16_t port, Answer answer) : m_answer(std::move(answer)) {
    uint16_t bound = port;
    m_fd = zeph_peers::bound_socket(SOCK_DGRAM, ip, port, bound, nullptr);
    m_port = bound;
    if (m_fd >= 0) m_thread = std::thread([this] { run(); });
}

UdpStandIn::~UdpStandIn() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_fd >= 0) close(m_fd);
}

std::vector<UdpStandIn::Got> UdpStandIn::got() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_got;
}
size_t UdpStandIn::count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_got.size();
}

void UdpStandIn::run() {
    std::vector<uint8_t> buf(kMaxDatagram);
    while (!m_stop) {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, kPollMs) <= 0) continue;
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        const ssize_t n = recvfrom(m_fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n <= 0) continue;
        Got g{std::vector<uint8_t>(buf.begin(), buf.begin() + n), now_ms(), ntohl(from.sin_addr.s_addr),
              ntohs(from.sin_port), 0};
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            g.index = m_got.size();
            m_got.push_back(g);
        }
        std::vector<uint8_t> reply = g.bytes;
        if (m_answer && m_answer(reply, g))
            sendto(m_fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), flen);
    }
}

bool answer_quality_data(std::vector<uint8_t>& p, uint32_t status) {
    if (q::get_type(p.data(), p.size(), false) != q::kTypeData) return false;
    q::set_type(p.data(), p.size(), false, q::kTypeDataResp);
    q::set_time(p.data(), p.size(), uint32_t(now_ms()));
    q::set_pair_count(p.data(), p.size(), 0);
    q::set_status(p.data(), p.size(), status);
    return true;
}

bool answer_quality_auth(std::vector<uint8_t>& p, uint32_t result) {
    if (q::get_type(p.data(), p.size(), false) != q::kTypeAuth) return false;
    q::set_type(p.data(), p.size(), false, q::kTypeAuthResp);
    q::set_auth_result(p.data(), p.size(), result);
    return true;
}

namespace {
std::mutex g_report_mutex;
std::condition_variable g_report_cv;
std::vector<Report> g_reports;
} // namespace

void record_report(int32_t id, int32_t code, int32_t p2, std::vector<DetectQosResult> results) {
    std::lock_guard<std::mutex> lock(g_report_mutex);
    g_reports.push_back({id, code, p2, std::move(results), now_ms()});
    g_report_cv.notify_all();
}

std::vector<Report> reports(size_t n, int timeout_ms) {
    std::unique_lock<std::mutex> lock(g_report_mutex);
    g_report_cv.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return g_reports.size() >= n; });
    return g_reports;
}

void clear_reports() {
    std::lock_guard<std::mutex> lock(g_report_mutex);
    g_reports.clear();
}

HeldUdpPorts::HeldUdpPorts(uint16_t first, uint16_t count) : all(true) {
    for (uint32_t port = first; port < uint32_t(first) + count; ++port) {
        uint16_t bound = 0;
        const int fd = zeph_peers::bound_socket(SOCK_DGRAM, "0.0.0.0", uint16_t(port), bound, nullptr);
        all = all && fd >= 0;
        if (fd >= 0) fds.push_back(fd);
    }
}

HeldUdpPorts::~HeldUdpPorts() { for (int fd : fds) close(fd); }

void HeldUdpPorts::release_last() {
    if (fds.empty()) return;
    close(fds.back());
    fds.pop_back();
}

} // namespace zeph_test
