// HTTP CONNECT client: opens a tunnel through the host's HTTP proxy on a
// socket the caller owns.
#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "commonlib/commonlib_internal.h"

namespace {

// The whole CONNECT exchange (and the connect to the proxy before it) must
// end within this time, however the socket is configured.
constexpr int kProxyTimeoutMs = 3000;
// An answer header longer than this is not a proxy talking to us.
constexpr size_t kMaxAnswerHeader = 8192;
// The name of each connect-through-proxy thread.
constexpr char kProxyThreadName[] = "zeph_proxy";

int64_t now_ms()
{
    return static_cast<int64_t>(MORL_GetSystemTime());
}

// Waits for events on fd until the deadline. >0 ready, 0 time-out (the
// thread's socket error then reads 10060), <0 error.
int wait_fd(MORL_SOCKET fd, int16_t events, int64_t deadline, int16_t* revents)
{
    const int64_t left = deadline - now_ms();
    if (left <= 0) {
        MORL_SetLastSocketErr(MORL_WSAETIMEDOUT);
        return 0;
    }
    MORL_PollFd p{fd, events, 0};
    const int r = MORL_Poll(&p, 1, static_cast<int>(left));
    if (r == 0) {
        MORL_SetLastSocketErr(MORL_WSAETIMEDOUT);
    }
    if (r > 0 && revents != nullptr) {
        *revents = p.revents;
    }
    return r;
}

// The socket may be blocking or not, and its connect to the proxy may still
// be under way: each send waits for room first, so that it never blocks
// past the deadline.
bool send_all(MORL_SOCKET fd, const std::string& data, int64_t deadline)
{
    size_t off = 0;
    while (off < data.size()) {
        int16_t revents = 0;
        if (wait_fd(fd, MORL_POLLWRNORM, deadline, &revents) <= 0) {
            return false;
        }
        if ((revents & (MORL_POLLERR | MORL_POLLHUP)) != 0) {
            int err = 0;
            int len = sizeof err;
            if (MORL_GetSockOpt(fd, MORL_SOL_SOCKET, MORL_SO_ERROR, &err, &len) == 0) {
                MORL_SetLastSocketErr(err != 0 ? err : MORL_WSAECONNABORTED);
            }
            return false;
        }
        const int n = MORL_Send(fd, data.data() + off, static_cast<int>(data.size() - off), 0);
        if (n > 0) {
            off += static_cast<size_t>(n);
            continue;
        }
        const int err = MORL_GetLastSocketErr();
        if (n < 0 && (err == MORL_WSAEINTR || err == MORL_WSAEWOULDBLOCK)) {
            continue;
        }
        return false;
    }
    return true;
}

std::string basic_credentials(const std::string& user, const std::string& password)
{
    std::string plain = user + ":" + password;
    std::vector<unsigned char> out(4 * ((plain.size() + 2) / 3) + 1);
    int n = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(plain.data()),
                            static_cast<int>(plain.size()));
    return std::string(reinterpret_cast<const char*>(out.data()), n > 0 ? static_cast<size_t>(n) : 0);
}

// Status code of "HTTP/1.x NNN reason", or -1 when the line is not one.
int parse_status_line(const std::string& header)
{
    size_t eol = header.find('\n');
    std::string line = header.substr(0, eol);
    if (line.compare(0, 5, "HTTP/") != 0) {
        return -1;
    }
    size_t sp = line.find(' ');
    if (sp == std::string::npos || sp + 4 > line.size()) {
        return -1;
    }
    int code = 0;
    for (size_t i = sp + 1; i < sp + 4; ++i) {
        if (line[i] < '0' || line[i] > '9') {
            return -1;
        }
        code = code * 10 + (line[i] - '0');
    }
    if (sp + 4 < line.size() && line[sp + 4] != ' ' && line[sp + 4] != '\r') {
        return -1;
    }
    return code < 100 ? -1 : code;
}

// Results besides 0, 16 and HTTP statuses. kRefusedTarget: the caller's
// host text could have changed the request's lines; nothing was sent.
enum : int { kIoFailure = -1, kMalformed = -2, kRefusedTarget = -3 };

// Reads the answer header up to and including its blank line, and not one
// byte more: what follows already belongs to the tunnel. Bytes are peeked
// first and only the header's share is taken off the socket. Returns 0 with
// the header, kIoFailure or kMalformed.
int read_answer_header(MORL_SOCKET fd, int64_t deadline, std::string* header)
{
    char buf[1024];
    for (;;) {
        if (header->size() >= kMaxAnswerHeader) {
            return kMalformed;
        }
        // Readable first, so that neither read blocks on a blocking socket.
        if (wait_fd(fd, MORL_POLLRDNORM, deadline, nullptr) <= 0) {
            return kIoFailure;
        }
        const size_t want = std::min(sizeof buf, kMaxAnswerHeader - header->size());
        const int n = MORL_Recv(fd, buf, static_cast<int>(want), MORL_MSG_PEEK);
        if (n < 0) {
            const int err = MORL_GetLastSocketErr();
            if (err == MORL_WSAEINTR || err == MORL_WSAEWOULDBLOCK) {
                continue;
            }
        }
        if (n <= 0) {
            return kIoFailure; // closed or failed before the header ended
        }
        // Look for the blank line across what we hold and what we peeked.
        size_t have = header->size();
        std::string joined = *header;
        joined.append(buf, static_cast<size_t>(n));
        size_t from = have >= 3 ? have - 3 : 0;
        size_t end = joined.find("\r\n\r\n", from);
        size_t take = static_cast<size_t>(n);
        if (end != std::string::npos) {
            take = end + 4 - have;
        }
        // The peeked bytes are there: this read takes them without waiting.
        const int got = MORL_Recv(fd, buf, static_cast<int>(take), 0);
        if (got != static_cast<int>(take)) {
            return kIoFailure;
        }
        header->append(buf, take);
        if (end != std::string::npos) {
            return 0;
        }
    }
}

bool set_nonblocking(MORL_SOCKET fd)
{
    uint32_t on = 1;
    return MORL_IoctlSocket(fd, MORL_FIONBIO, &on) == 0;
}

// Starts a connect of fd to addr:port through the OS adapter, which
// refuses 0.0.0.0 and keeps an immediate failure with the socket. 0 when
// connected or under way, else the WSA error.
int start_connect(MORL_SOCKET fd, uint32_t be_addr, uint16_t port)
{
    MORL_SockAddrIn to{};
    to.sin_family = MORL_AF_INET;
    to.sin_port = MORL_Htons(port);
    to.sin_addr = be_addr;
    if (MORL_Connect(fd, &to, sizeof to) == 0) {
        return 0;
    }
    const int err = MORL_GetLastSocketErr();
    return err == MORL_WSAEWOULDBLOCK || err == MORL_WSAEALREADY || err == MORL_WSAEISCONN ? 0 : err;
}

std::string error_text(int wsa)
{
    char text[128] = {};
    MORL_StrError_S(text, sizeof text, wsa);
    return text;
}

// Connects fd to the proxy and waits for the connect to finish. On failure
// the thread's socket error tells why (10060 for a time-out).
int connect_to_proxy(MORL_SOCKET fd, const zeph_commonlib::ProxySetting& proxy)
{
    std::string proxy_text = zeph_commonlib::ipv4_text(proxy.addr);
    int err = start_connect(fd, proxy.addr, proxy.port);
    if (err == 0) {
        MORL_PollFd p{fd, MORL_POLLWRNORM, 0};
        int r = MORL_Poll(&p, 1, kProxyTimeoutMs);
        if (r == 0) {
            CL_LOGW("connect to proxy %s:%u timed out", proxy_text.c_str(), proxy.port);
            MORL_SetLastSocketErr(MORL_WSAETIMEDOUT);
            return -1;
        }
        int len = sizeof err;
        if (r < 0 || MORL_GetSockOpt(fd, MORL_SOL_SOCKET, MORL_SO_ERROR, &err, &len) != 0) {
            err = MORL_GetLastSocketErr();
        } else if (err == 0 && (p.revents & MORL_POLLWRNORM) == 0) {
            err = MORL_WSAECONNABORTED; // hung up without an error to tell
        }
    }
    if (err != 0) {
        CL_LOGW("connect to proxy %s:%u failed: %s", proxy_text.c_str(), proxy.port, error_text(err).c_str());
        MORL_SetLastSocketErr(err); // the error of the connect, not of the wait for it
        return -1;
    }
    return 0;
}

} // namespace

void zeph_http_tunnel_init()
{
    // The CONNECT client needs no service thread or state of its own.
}

void zeph_http_tunnel_uninit()
{
}

int zeph_http_proxy_connect_ex(int /*reserved*/, MORL_SOCKET sock, const char* ip, uint16_t port)
{
    if (sock < 0 || ip == nullptr || ip[0] == '\0' || port == 0) {
        CL_LOGW("bad arguments: sock %d port %u", sock, port);
        return kIoFailure;
    }
    if (!zeph_commonlib::is_host_text(ip)) {
        CL_LOGW("CONNECT refused: the target (%zu bytes) is not a host name or address", std::strlen(ip));
        return kRefusedTarget;
    }
    const int64_t deadline = now_ms() + kProxyTimeoutMs;
    zeph_commonlib::ProxySetting proxy = zeph_commonlib::proxy_setting();

    char target[300];
    std::snprintf(target, sizeof target, "%s:%u", ip, port);
    std::string request = std::string("CONNECT ") + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (!proxy.user.empty()) {
        request += "Proxy-Authorization: Basic " + basic_credentials(proxy.user, proxy.password) + "\r\n";
    }
    request += "\r\n";

    if (!send_all(sock, request, deadline)) {
        CL_LOGW("CONNECT %s: sending the request failed: %s", target, error_text(MORL_GetLastSocketErr()).c_str());
        return kIoFailure;
    }
    std::string header;
    int r = read_answer_header(sock, deadline, &header);
    if (r == kIoFailure) {
        CL_LOGW("CONNECT %s: no complete answer within %d ms", target, kProxyTimeoutMs);
        return kIoFailure;
    }
    int status = r == 0 ? parse_status_line(header) : -1;
    if (status < 0) {
        CL_LOGW("CONNECT %s: malformed answer from the proxy", target);
        return kMalformed;
    }
    if (status >= 200 && status < 300) {
        return 0;
    }
    if (status == 407) {
        CL_LOGW("CONNECT %s: proxy demands authentication (407)%s", target,
                proxy.user.empty() ? "" : ", credentials refused");
        return 16;
    }
    CL_LOGW("CONNECT %s: proxy answered %d", target, status);
    return status;
}

int zeph_tcp_over_http_proxy(MORL_SOCKET sock, uint32_t address, uint16_t port, const char* domain, int* is_domain)
{
    if (is_domain != nullptr) {
        *is_domain = 0;
    }
    bool use_domain = domain != nullptr && domain[0] != '\0';
    if (sock < 0 || port == 0 || (!use_domain && address == 0)) {
        CL_LOGW("bad arguments: sock %d port %u", sock, port);
        return -1;
    }
    if (use_domain && !zeph_commonlib::is_host_text(domain)) {
        CL_LOGW("connect refused: the domain (%zu bytes) is not a host name", std::strlen(domain));
        return kRefusedTarget;
    }
    if (use_domain && is_domain != nullptr) {
        *is_domain = 1;
    }
    if (!set_nonblocking(sock)) {
        CL_LOGW("cannot make socket %d non-blocking: %s", sock, error_text(MORL_GetLastSocketErr()).c_str());
        return -1;
    }
    zeph_commonlib::ProxySetting proxy = zeph_commonlib::proxy_setting();
    if (!proxy.configured) {
        uint32_t to = address;
        if (use_domain) {
            to = get_addr_ipv4(domain);
            if (to == 0) {
                CL_LOGW("cannot resolve %s", domain);
                return -1;
            }
        }
        int err = start_connect(sock, to, port);
        if (err != 0) {
            CL_LOGW("connect to %s:%u failed: %s", zeph_commonlib::ipv4_text(to).c_str(), port, error_text(err).c_str());
            return -1;
        }
        return 0;
    }
    if (connect_to_proxy(sock, proxy) != 0) {
        return -1;
    }
    // Through the proxy a name is handed on as it is, for the proxy to resolve.
    std::string target = use_domain ? std::string(domain) : zeph_commonlib::ipv4_text(address);
    return zeph_http_proxy_connect_ex(0, sock, target.c_str(), port);
}

int zeph_http_proxy_connect_asyn(MORL_SOCKET sock, const char* ip, uint16_t port, zeph_http_proxy_connect_cb callback)
{
    if (sock < 0 || !zeph_commonlib::is_host_text(ip) || port == 0 || callback == nullptr) {
        return -1;
    }
    std::string target(ip);
    try {
        // One short-lived thread per request; it owns only copies, so it
        // needs nothing from the caller but the socket number.
        std::thread([sock, target, port, callback] {
            MORL_PthreadSetName(kProxyThreadName);
            zeph_commonlib::ProxySetting proxy = zeph_commonlib::proxy_setting();
            int result = -1;
            if (proxy.configured && connect_to_proxy(sock, proxy) == 0) {
                result = zeph_http_proxy_connect_ex(0, sock, target.c_str(), port);
            }
            callback(sock, result);
        }).detach();
    } catch (const std::system_error& e) {
        CL_LOGW("cannot start the proxy connect thread: %s", e.what());
        return -1;
    }
    return 0;
}
