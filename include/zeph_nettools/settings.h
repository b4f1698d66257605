/*
 * Host-side settings of zeph_nettools.
 *
 * The library reads no file and no environment variable: the log sink, the
 * HTTP proxy, the local address and the DNS servers are given here by the
 * embedding program.
 * All calls are thread-safe and take effect for operations started after
 * they return.
 */
#ifndef ZEPH_NETTOOLS_SETTINGS_H
#define ZEPH_NETTOOLS_SETTINGS_H

#include <stdint.h>

#include "zeph_nettools/export.h"

ZEPH_EXTERN_C_BEGIN

/* Log levels of the detection side. */
#define ZEPH_LOG_ERROR 0
#define ZEPH_LOG_WARNING 1
#define ZEPH_LOG_INFO 2
#define ZEPH_LOG_DEBUG 3

/*
 * Receives one finished log line of the detection side. `function` is
 * "Class::method" or a plain function name, `file` the source path in the
 * repository ("support/nettools/portdetect/port_detect.cpp").
 * Called on library threads, possibly concurrently; must not block.
 */
typedef void (*zeph_log_sink)(void* user, int level, const char* module, const char* function, const char* file,
                              int line, const char* message);

/*
 * Sets the sink and the most verbose level delivered to it (0..3).
 * A null sink restores the default: lines up to `max_level` go to stderr.
 * The default before any call is stderr with max_level ZEPH_LOG_WARNING.
 */
ZEPH_API void zeph_settings_set_log_sink(zeph_log_sink sink, void* user, int max_level);

/*
 * Configures the HTTP proxy used by TCP probes and media channels.
 * `host` is a dotted IPv4 address or a name (resolved now); `user` and
 * `password` are optional Basic credentials (both null for none).
 * A null or empty `host` removes the proxy. Returns 0, or -1 when the host
 * cannot be resolved or the port is 0 (the previous setting stays).
 */
ZEPH_API int zeph_settings_set_http_proxy(const char* host, uint16_t port, const char* user, const char* password);

/*
 * Sets the local IPv4 address the library reports and binds to where it
 * needs one. Null or empty returns to automatic choice. 0, or -1 when the
 * text is not a dotted IPv4 address.
 */
ZEPH_API int zeph_settings_set_local_addr(const char* addr);

/*
 * Sets the DNS servers that resolve the detections' host names, as a
 * comma-separated list of dotted IPv4 addresses, each with an optional port:
 * "192.0.2.53,198.51.100.7:5353" (port 53 when none is given; at most 8
 * servers, no blanks). Null or empty returns to the system's servers. 0, or
 * -1 when the text is not such a list (the previous setting stays).
 * Look-ups already under way keep the servers they started with.
 */
ZEPH_API int zeph_settings_set_dns_servers(const char* csv);

ZEPH_EXTERN_C_END

#endif
