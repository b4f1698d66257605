// Long-time watching of one site: back-to-back streams of ten seconds over
// two alternating sockets (bound from 64100 and 64101 up), one scored report
// per stream through the caller's callback. DetectStunLongTime does the same
// towards a plain STUN server: the STUN form of the packet, at level 0,
// without server times.
//
// Threads: start runs on the caller's thread and starts one detached thread
// ("detect_long") that starts each stream, waits for it and calls the
// callback with no lock of ours held; each running stream has the two
// threads of its exchanger. The object lives by m_self until its thread
// ends, and then goes (the STUN variant too: its export hands it to a
// shared pointer at once).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "bwdetect/detect_cli_pkt.h"
#include "bwdetect/detect_client.h"

// What the thread does: rounds of this many seconds, one stream each.
constexpr int32_t DETECT_LONG_TIME_ROUND_SECONDS = 10;
// The two exchangers, used in turn; exchanger `no` binds from 64100 + no up.
constexpr uint32_t DETECT_LONG_TIME_STREAMS = 2;
// Result of start when no thread could be started (as for no memory).
constexpr int32_t DETECT_ERR_NO_THREAD = 1;

class DetectSiteLongTime : public DetectClientBase, public std::enable_shared_from_this<DetectSiteLongTime> {
public:
    DetectSiteLongTime() = default;
    ~DetectSiteLongTime() override;

    // Checks the site and the configuration, builds the image and starts the
    // thread. 0; DETECT_ERR_BAD_ARGUMENT (no address or port, no callback,
    // a null argument); DETECT_ERR_TOKEN_REFUSED (with is_auth: a missing
    // token or parameter, or one too long). `self` is the caller's shared
    // pointer to this object, kept until the thread ends.
    int32_t start(const DetectSiteInfo* site, DetectBwConfig* config, std::shared_ptr<DetectSiteLongTime> self);

    // The site's part of start: 0, DETECT_ERR_BAD_ARGUMENT or
    // DETECT_ERR_TOKEN_REFUSED. The copy in m_site is marked valid.
    int32_t set_site_info(const DetectSiteInfo* site, const DetectBwConfig* config);
    // The configuration's part: 0 or DETECT_ERR_BAD_ARGUMENT (no callback).
    // A level outside 0..6 runs at 1, a time_len below 10 as 10, each with
    // a log line.
    int32_t set_config(const DetectBwConfig* config);
    int32_t start_send_thread() override;

    int32_t time_len() const { return m_time_len; }

protected:
    // The first check of start (both variants): non-null arguments.
    static bool arguments_present(const DetectSiteInfo* site, const DetectBwConfig* config);
    // Stores `self` and starts the thread; 0 or DETECT_ERR_NO_THREAD.
    int32_t run(std::shared_ptr<DetectSiteLongTime> self);

private:
    void client_send_thread();
    // The socket of exchanger `no`, added to m_socks when it could be made.
    void start_socket(uint32_t no);
    // Waits for exchanger `no` to reach `state` in up to `rounds` sleeps;
    // true when it did.
    bool wait_for_state(uint32_t no, int32_t state, uint32_t rounds);
    void notify_detect_result(uint32_t no);

    int32_t m_is_auth = 0;
    int32_t m_time_len = 0;
    DetectSiteInfo m_site;
    std::vector<std::shared_ptr<DetectCliPktAnyTime>> m_exchangers{DETECT_LONG_TIME_STREAMS};
    std::vector<DetectSockPtr> m_socks;
    std::shared_ptr<DetectSiteLongTime> m_self;
};

class DetectStunLongTime : public DetectSiteLongTime {
public:
    // As DetectSiteLongTime::start, in the STUN form at level 0 (written
    // back into `config`), with no session drawn. The object must already
    // be held by a shared pointer: its thread takes that over.
    int32_t start(const DetectSiteInfo* site, DetectBwConfig* config);
};
