// Host settings (HTTP proxy, local address, DNS servers) and the address
// helpers that read them. Runs on the host's threads and on the library's
// threads that read the settings.
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "commonlib/commonlib_internal.h"
#include "zeph_nettools/settings.h"

namespace zeph_commonlib {
namespace {

struct SettingsState {
    std::mutex mutex; // guards proxy and dns_servers
    ProxySetting proxy;
    std::string dns_servers; // "IP:PORT,...", empty for the system's servers
    std::atomic<uint32_t> local_addr{0}; // network order, 0 = automatic
};

SettingsState& settings()
{
    static SettingsState& state = *new SettingsState;
    return state;
}

// 127.0.0.1, the answer when nothing routes outward.
constexpr uint32_t kLoopbackHostOrder = 0x7F000001;
// A documentation address (192.0.2.1, never reached) and the discard port:
// connecting a UDP socket to them only chooses the outward route.
constexpr uint32_t kRouteProbeHostOrder = 0xC0000201;
constexpr uint16_t kRouteProbePort = 9;

bool parse_dotted(const char* text, uint32_t* be_addr)
{
    uint32_t a = 0;
    if (text == nullptr || MORL_Inet_Pton(MORL_AF_INET, text, &a, sizeof a) != 1) {
        return false;
    }
    *be_addr = a;
    return true;
}

// The address of the interface the kernel would route outward. Connecting a
// UDP socket only chooses the route: no packet is sent.
uint32_t routed_local_addr()
{
    const MORL_SOCKET fd = MORL_Socket(MORL_AF_INET, MORL_SOCK_DGRAM, 0);
    if (fd == MORL_INVALID_SOCKET) {
        return 0;
    }
    MORL_SockAddrIn to{};
    to.sin_family = MORL_AF_INET;
    to.sin_port = MORL_Htons(kRouteProbePort);
    to.sin_addr = MORL_Htonl(kRouteProbeHostOrder);
    uint32_t result = 0;
    if (MORL_Connect(fd, &to, sizeof to) == 0) {
        MORL_SockAddrIn me{};
        int len = sizeof me;
        if (MORL_GetSockName(fd, &me, &len) == 0) {
            result = me.sin_addr;
        }
    }
    MORL_CloseSocket(fd);
    return result;
}

constexpr size_t kMaxDnsServers = 8;
constexpr uint32_t kDefaultDnsPort = 53;
constexpr uint32_t kMaxPort = 65535;
constexpr size_t kMaxPortDigits = 5;
// Eight "255.255.255.255:65535" entries and their commas.
constexpr size_t kMaxDnsServersText = kMaxDnsServers * (kIpv4TextSize + kMaxPortDigits + 1);

// One "IP" or "IP:PORT" entry of the DNS server list, appended to `out` as
// "IP:PORT". False when it is anything else.
bool append_dns_server(const std::string& entry, std::string* out)
{
    const size_t colon = entry.find(':');
    const std::string ip = entry.substr(0, colon);
    uint32_t be = 0;
    if (!parse_dotted(ip.c_str(), &be)) {
        return false;
    }
    uint32_t port = kDefaultDnsPort;
    if (colon != std::string::npos) {
        const std::string digits = entry.substr(colon + 1);
        if (digits.empty() || digits.size() > kMaxPortDigits ||
            digits.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        port = static_cast<uint32_t>(std::stoul(digits));
        if (port == 0 || port > kMaxPort) {
            return false;
        }
    }
    if (!out->empty()) {
        out->push_back(',');
    }
    *out += ipv4_text(be) + ":" + std::to_string(port);
    return true;
}

// The list in the one form the resolver reads; false when `csv` is not a
// list of 1 to kMaxDnsServers entries.
bool normalize_dns_servers(const char* csv, std::string* out)
{
    if (strnlen(csv, kMaxDnsServersText + 1) > kMaxDnsServersText) {
        return false;
    }
    const std::string text(csv);
    size_t count = 0;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        const std::string entry = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (++count > kMaxDnsServers || !append_dns_server(entry, out)) {
            return false;
        }
        if (comma == std::string::npos) {
            return true;
        }
        start = comma + 1;
    }
}

} // namespace

ProxySetting proxy_setting()
{
    SettingsState& st = settings();
    std::lock_guard<std::mutex> lock(st.mutex);
    return st.proxy;
}

bool is_host_text(const char* text)
{
    if (text == nullptr) {
        return false;
    }
    size_t n = 0;
    for (; text[n] != '\0'; ++n) {
        const char c = text[n];
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                        c == '-' || c == '_';
        if (!ok || n + 1 > kMaxHostText) {
            return false;
        }
    }
    return n > 0;
}

bool is_credential_text(const char* text)
{
    if (text == nullptr) {
        return true;
    }
    size_t n = 0;
    for (; text[n] != '\0'; ++n) {
        const unsigned char c = static_cast<unsigned char>(text[n]);
        if (c < 0x20 || c == 0x7F || n + 1 > kMaxCredentialText) {
            return false;
        }
    }
    return true;
}

std::string ipv4_text(uint32_t be_addr)
{
    char text[kIpv4TextSize] = {};
    MORL_Inet_Ntop(MORL_AF_INET, &be_addr, text, sizeof text);
    return text;
}

} // namespace zeph_commonlib

using zeph_commonlib::settings;

uint32_t get_addr_ipv4(const char* text)
{
    if (!zeph_commonlib::is_host_text(text)) {
        return 0;
    }
    uint32_t addr = 0;
    if (zeph_commonlib::parse_dotted(text, &addr)) {
        return addr;
    }
    if (MORL_ResolveIpv4(text, &addr) != 0) {
        return 0;
    }
    return addr;
}

uint32_t zeph_get_local_addr()
{
    uint32_t addr = settings().local_addr.load(std::memory_order_acquire);
    if (addr != 0) {
        return addr;
    }
    addr = zeph_commonlib::routed_local_addr();
    return addr != 0 ? addr : MORL_Htonl(zeph_commonlib::kLoopbackHostOrder);
}

int zeph_settings_set_local_addr(const char* addr)
{
    if (addr == nullptr || addr[0] == '\0') {
        settings().local_addr.store(0, std::memory_order_release);
        return 0;
    }
    uint32_t be = 0;
    if (!zeph_commonlib::parse_dotted(addr, &be)) {
        return -1;
    }
    settings().local_addr.store(be, std::memory_order_release);
    return 0;
}

int zeph_settings_set_dns_servers(const char* csv)
{
    std::string servers;
    if (csv != nullptr && csv[0] != '\0' && !zeph_commonlib::normalize_dns_servers(csv, &servers)) {
        CL_LOGW("dns servers not changed: not a list of up to %zu IPv4 addresses with optional ports",
                zeph_commonlib::kMaxDnsServers);
        return -1;
    }
    zeph_commonlib::SettingsState& st = settings();
    {
        std::lock_guard<std::mutex> lock(st.mutex);
        st.dns_servers = servers;
    }
    CL_LOGI("dns servers set to %s", servers.empty() ? "the system's" : servers.c_str());
    return 0;
}

std::string zeph_get_dns_servers()
{
    zeph_commonlib::SettingsState& st = settings();
    std::lock_guard<std::mutex> lock(st.mutex);
    return st.dns_servers;
}

int zeph_settings_set_http_proxy(const char* host, uint16_t port, const char* user, const char* password)
{
    zeph_commonlib::SettingsState& st = settings();
    if (host == nullptr || host[0] == '\0') {
        {
            std::lock_guard<std::mutex> lock(st.mutex);
            st.proxy = zeph_commonlib::ProxySetting{};
        }
        CL_LOGI("http proxy removed");
        return 0;
    }
    if (port == 0) {
        CL_LOGW("http proxy not changed: port 0");
        return -1;
    }
    // Basic credentials: a user name is needed for a password to mean
    // anything, and a colon would end the user name early on the wire.
    if (!zeph_commonlib::is_host_text(host)) {
        CL_LOGW("http proxy not changed: the host is not a host name or address");
        return -1;
    }
    if (!zeph_commonlib::is_credential_text(user) || !zeph_commonlib::is_credential_text(password)) {
        CL_LOGW("http proxy not changed: credentials hold control bytes or are longer than %zu bytes",
                zeph_commonlib::kMaxCredentialText);
        return -1;
    }
    bool has_user = user != nullptr && user[0] != '\0';
    if ((!has_user && password != nullptr && password[0] != '\0') || (has_user && std::strchr(user, ':') != nullptr)) {
        CL_LOGW("http proxy not changed: bad credentials");
        return -1;
    }
    uint32_t addr = get_addr_ipv4(host);
    if (addr == 0) {
        CL_LOGW("http proxy not changed: cannot resolve %s", host);
        return -1;
    }
    zeph_commonlib::ProxySetting next;
    next.configured = true;
    next.addr = addr;
    next.port = port;
    if (has_user) {
        next.user = user;
        next.password = password ? password : "";
    }
    {
        std::lock_guard<std::mutex> lock(st.mutex);
        st.proxy = std::move(next);
    }
    CL_LOGI("http proxy set to %s:%u%s", zeph_commonlib::ipv4_text(addr).c_str(), port,
            has_user ? " with credentials" : "");
    return 0;
}

uint32_t zeph_is_proxy_configed()
{
    return zeph_commonlib::proxy_setting().configured ? 1 : 0;
}

uint32_t zeph_is_use_proxy()
{
    return zeph_is_proxy_configed();
}

uint32_t zeph_get_proxy_addr()
{
    return zeph_commonlib::proxy_setting().addr;
}

uint16_t zeph_get_proxy_port()
{
    return zeph_commonlib::proxy_setting().port;
}
