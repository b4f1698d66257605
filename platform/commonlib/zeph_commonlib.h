// Common library stand-in: logging, random numbers, digests, address
// helpers and HTTP proxy access. Settings (log sink, proxy, local address,
// DNS servers) come from the host through the exports of <zeph_nettools/settings.h>.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "os_adapter/morl_os.h"

// ---- logging -------------------------------------------------------------------
// level: 0 error, 1 warning, 2 info, 3 debug. `zero` is always 0.
void DoLog(const char* module, int level, int zero, const char* function, const char* file, int line,
           const char* format, ...) __attribute__((format(printf, 7, 8)));
// True when a line of this level would reach the sink (cheap; lets callers
// skip formatting).
bool zeph_log_enabled(int level);
// Turns a __PRETTY_FUNCTION__ text into "Class::method" or "function".
const char* zeph_log_func_name(const char* pretty, char* buf, size_t size);

// ---- random and digest -------------------------------------------------------------
// Fills buf with len cryptographically random bytes. 0 on success.
int ZEPH_CPYPT_RealRandom(void* buf, uint32_t len);
// digest 0: SHA-1 (20 bytes). Writes *out_len bytes to out. 0 on success.
int ZEPH_CRYPT_digest(int digest, const void* data, uint32_t len, uint8_t* out, uint32_t* out_len);
// HMAC with digest 0 (HMAC-SHA1). 0 on success.
int ZEPH_CRYPT_hmac(int digest, const void* key, uint32_t key_len, const void* data, uint32_t len, uint8_t* out,
                    uint32_t* out_len);

// ---- addresses ---------------------------------------------------------------------
// Dotted text or host name to an IPv4 address in network byte order; 0 when
// it cannot be resolved. May block on the resolver.
uint32_t get_addr_ipv4(const char* text);
// The local IPv4 address (network order) set by the host, else the address
// of the interface that routes outward, else 127.0.0.1.
uint32_t zeph_get_local_addr();
// The DNS servers the host set, as "IP:PORT,IP:PORT", or empty for the
// system's own.
std::string zeph_get_dns_servers();

// ---- HTTP proxy ---------------------------------------------------------------------
void zeph_http_tunnel_init();
void zeph_http_tunnel_uninit();
// 1 when the host configured a proxy, else 0.
uint32_t zeph_is_proxy_configed();
// Non-zero when TCP goes through the HTTP proxy now.
uint32_t zeph_is_use_proxy();
uint32_t zeph_get_proxy_addr(); // network order
uint16_t zeph_get_proxy_port(); // host order
// HTTP CONNECT to ip:port over `sock`, already connected to the proxy
// (blocking or not). Waits at most 3 s for the answer and takes nothing off
// the socket beyond the answer's header. 0 when the proxy answered 2xx; 16
// when it demanded authentication (407); the HTTP status for other answers
// (403, 401, 502...); -1 on I/O failure or time-out; -2 for an answer that
// is not HTTP; -3, with nothing sent, when ip is not a host name or dotted
// address (control bytes, blanks, ':' or '/', over 253 bytes).
// `reserved` is 0.
int zeph_http_proxy_connect_ex(int reserved, MORL_SOCKET sock, const char* ip, uint16_t port);
// Result of zeph_http_proxy_connect_asyn: the socket and the result that
// zeph_http_proxy_connect_ex gave (-1 when the proxy could not be reached).
using zeph_http_proxy_connect_cb = void (*)(MORL_SOCKET sock, int result);
// Connects `sock` (non-blocking, not yet connected or connecting) to the
// configured proxy and runs the CONNECT handshake to ip:port on a thread of
// its own, then calls callback once on that thread. 0 when started.
int zeph_http_proxy_connect_asyn(MORL_SOCKET sock, const char* ip, uint16_t port, zeph_http_proxy_connect_cb callback);
// Starts a non-blocking TCP connect of `sock` to address:port (address in
// network order; the domain instead when non-empty), through the configured
// HTTP proxy when one is in use. Without a proxy it returns at once, 0 when
// the connect is under way or done. With a proxy it waits for the proxy's
// connect and the CONNECT answer (3 s at most each) and returns 0 when the
// tunnel is open, 16 when the proxy refused authentication, the HTTP status
// or another non-zero value otherwise (-3 at once for a domain that is not
// a host name). The socket is left non-blocking.
// Sets *is_domain to 1 when the domain was used.
int zeph_tcp_over_http_proxy(MORL_SOCKET sock, uint32_t address, uint16_t port, const char* domain, int* is_domain);
