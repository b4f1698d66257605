// Asynchronous resolution of a host name to one IPv4 address.
//
// Threads: requests come from any thread; every answer is a call of the
// request's callback on the one resolver thread ("zeph_dns"), never inside
// the request call itself, with no lock of the resolver held. The resolver
// thread starts with the first request and runs until RAVN_NETB_DnsStop or
// the library's unload, which both stop it the same way.
//
// Servers: those of zeph_settings_set_dns_servers, else the system's. Names
// are looked up in the hosts file first, then asked of the servers for an A
// record only. A dotted IPv4 literal is answered by the resolver thread
// without any look-up.
#pragma once

#include <cstdint>

// One address of an answer.
struct RAVN_DnsAddrRecord {
    uint32_t type;     // RAVN_DNS_ADDR_IPV4
    uint32_t reserved; // 0
    uint32_t addr;     // network byte order
};
enum : uint32_t { RAVN_DNS_ADDR_IPV4 = 0 };

// Results of the request call (refusals: no callback follows) and of the
// callback (answers).
enum : uint32_t {
    RAVN_DNS_OK = 0,
    RAVN_DNS_ERR_PARAM = 1,      // refused: null callback, or host is not a host name or address
    RAVN_DNS_ERR_BUSY = 2,       // refused: RAVN_DNS_MAX_PENDING requests wait for their answers
    RAVN_DNS_ERR_START = 3,      // refused: the resolver could not start, or is stopping
    RAVN_DNS_ERR_NOT_FOUND = 4,  // answered: the name does not exist
    RAVN_DNS_ERR_NO_ADDRESS = 5, // answered: the name exists without an IPv4 address
    RAVN_DNS_ERR_TIMEOUT = 6,    // answered: no answer within RAVN_DNS_TIMEOUT_MS
    RAVN_DNS_ERR_FAILED = 7,     // answered: the servers failed or refused, or the answer was bad
    RAVN_DNS_ERR_STOPPED = 8,    // answered: the resolver stopped before the answer came
};

// Most requests accepted and not yet answered.
constexpr uint32_t RAVN_DNS_MAX_PENDING = 256;
// Longest wait for an answer, counted from the request call.
constexpr uint32_t RAVN_DNS_TIMEOUT_MS = 5000;

// The answer. `host` is the name that was asked. On success `result` is
// RAVN_DNS_OK, `count` is 1 and `list` holds the first IPv4 address with the
// record's time to live in `ttl` (seconds; 0 for a literal or the hosts
// file). On failure `count` is 0, `ttl` 0, and `list` points to one zeroed
// record, never null. `host` and `list` are valid during the call only.
using RAVN_DnsResultCallback = void (*)(uint32_t result, const char* host, const RAVN_DnsAddrRecord* list,
                                        int32_t count, uint32_t ttl, uint64_t req_id);

// Starts one look-up of `host`. RAVN_DNS_OK when accepted: the callback then
// runs exactly once, with `req_id`. Any other result is a refusal and no
// callback follows. `flags`, `param` and `reserved` mean nothing here.
uint32_t RAVN_NETB_DnsGetIpByAsynResolve(const char* host, uint32_t flags, uint32_t param,
                                         RAVN_DnsResultCallback callback, uint64_t req_id, uint32_t reserved);

// Stops the resolver: every request still waiting is answered with
// RAVN_DNS_ERR_STOPPED, on the resolver thread, and the thread is joined
// before the return. A later request starts it again. Called on the resolver
// thread (from inside a callback) it does nothing and gives -1; else 0.
int RAVN_NETB_DnsStop();
