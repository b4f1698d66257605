// The resolver: requests are queued by any thread; the resolver thread
// ("zeph_dns", `Resolver::run`) owns the c-ares channels, polls their sockets
// beside a wake, and runs every callback with no lock held. `mu_` guards the
// queue and the life of the thread; everything else belongs to the thread.
//
// c-ares's header brings the socket headers with it; this file reads only
// the IPv4 address of an answer from them.
#include "dns/ravn_dns.h"

#include <ares.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "commonlib/zeph_commonlib.h"
#include "os_adapter/morl_os.h"

namespace {

constexpr size_t kMaxHostText = 253;
constexpr size_t kMaxLabel = 63;
constexpr uint32_t kIpv4Size = 4;
// c-ares asks each server twice, 1.5 s and then 3 s: its own verdict comes
// before the resolver's deadline of RAVN_DNS_TIMEOUT_MS.
constexpr int kAresTimeoutMs = 1500;
constexpr int kAresTries = 2;
// The longest poll, so that deadlines are checked even while c-ares waits on nothing.
constexpr int kMaxPollMs = 500;
constexpr int kMillisPerSecond = 1000;
constexpr int kMicrosPerMilli = 1000;
constexpr char kThreadName[] = "zeph_dns";

// A host name: labels of 1 to 63 letters, digits, '-' or '_', joined by
// dots, 253 bytes at most, a final dot allowed.
bool is_host_name(const char* host) {
    size_t len = 0;
    size_t label = 0;
    for (; host[len] != '\0'; ++len) {
        const char c = host[len];
        if (len + 1 > kMaxHostText) {
            return false;
        }
        if (c == '.') {
            if (label == 0) {
                return false;
            }
            label = 0;
            continue;
        }
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                        c == '_';
        if (!ok || ++label > kMaxLabel) {
            return false;
        }
    }
    return len > 0;
}

struct Request {
    std::string host;
    RAVN_DnsResultCallback callback = nullptr;
    uint64_t req_id = 0;
    bool literal = false;
    uint32_t literal_addr = 0; // network order
    uint64_t deadline_ms = 0;
};

// One c-ares channel with the server list it was made for. A changed
// setting makes a new channel; the old one ends when its look-ups have.
struct Channel {
    ares_channel channel = nullptr;
    std::string servers;
    size_t pending = 0; // our look-ups not yet answered
    ~Channel() {
        if (channel != nullptr) {
            ares_destroy(channel);
        }
    }
};

struct Answer {
    uint32_t result = RAVN_DNS_ERR_FAILED;
    uint32_t addr = 0; // network order
    uint32_t ttl = 0;
};

uint32_t result_of_status(int status) {
    switch (status) {
    case ARES_ENOTFOUND:
        return RAVN_DNS_ERR_NOT_FOUND;
    case ARES_ENODATA:
        return RAVN_DNS_ERR_NO_ADDRESS;
    case ARES_ETIMEOUT:
        return RAVN_DNS_ERR_TIMEOUT;
    case ARES_EDESTRUCTION:
    case ARES_ECANCELLED:
        return RAVN_DNS_ERR_STOPPED;
    default:
        return RAVN_DNS_ERR_FAILED;
    }
}

Answer answer_of(int status, const ares_addrinfo* info) {
    Answer a;
    if (status != ARES_SUCCESS) {
        a.result = result_of_status(status);
        return a;
    }
    a.result = RAVN_DNS_ERR_NO_ADDRESS;
    for (const ares_addrinfo_node* n = info != nullptr ? info->nodes : nullptr; n != nullptr; n = n->ai_next) {
        if (n->ai_family == AF_INET && n->ai_addr != nullptr && n->ai_addrlen >= sizeof(sockaddr_in)) {
            a.result = RAVN_DNS_OK;
            a.addr = reinterpret_cast<const sockaddr_in*>(n->ai_addr)->sin_addr.s_addr;
            a.ttl = n->ai_ttl > 0 ? static_cast<uint32_t>(n->ai_ttl) : 0;
            break;
        }
    }
    return a;
}

// Stops the resolver at the library's unload.
struct UnloadStop {
    ~UnloadStop();
};

class Resolver {
public:
    uint32_t submit(Request r) {
        std::lock_guard<std::mutex> lk(mu_);
        if (state_ == State::Stopping || unloaded_) {
            return RAVN_DNS_ERR_START;
        }
        if (outstanding_ >= RAVN_DNS_MAX_PENDING) {
            return RAVN_DNS_ERR_BUSY;
        }
        if (state_ == State::Idle && !start_locked()) {
            return RAVN_DNS_ERR_START;
        }
        r.deadline_ms = MORL_GetSystemTime() + RAVN_DNS_TIMEOUT_MS;
        queue_.push_back(std::move(r));
        ++outstanding_;
        MORL_WakeSignal(wake_); // never blocks
        return RAVN_DNS_OK;
    }

    int stop(bool unloading) {
        std::unique_lock<std::mutex> lk(mu_);
        unloaded_ = unloaded_ || unloading;
        if (state_ != State::Idle && std::this_thread::get_id() == thread_id_) {
            return -1; // it cannot join itself
        }
        if (state_ == State::Stopping) {
            idle_.wait(lk, [this] { return state_ == State::Idle; });
            return 0;
        }
        if (state_ == State::Idle) {
            return 0;
        }
        state_ = State::Stopping;
        MORL_WakeSignal(wake_);
        std::thread t = std::move(thread_);
        lk.unlock();
        t.join();
        lk.lock();
        MORL_WakeClose(wake_);
        wake_ = MORL_INVALID_WAKE;
        thread_id_ = std::thread::id();
        state_ = State::Idle;
        idle_.notify_all();
        return 0;
    }

    // c-ares's callback, on the resolver thread inside ares_getaddrinfo or ares_process_fd.
    static void on_addrinfo(void* arg, int status, int /*timeouts*/, ares_addrinfo* info);

private:
    enum class State { Idle, Running, Stopping };

    bool start_locked() {
        wake_ = MORL_WakeCreate();
        if (wake_ == MORL_INVALID_WAKE) {
            return false;
        }
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            MORL_WakeClose(wake_);
            wake_ = MORL_INVALID_WAKE;
            return false;
        }
        thread_id_ = thread_.get_id();
        state_ = State::Running;
        // Made at the first start, so it is destroyed before anything that
        // existed earlier: an unload stops the thread the same way.
        static UnloadStop unload_stop;
        (void)unload_stop;
        return true;
    }

    void run();
    void begin(Request r);
    Channel* current_channel();
    void expire(uint64_t now);
    void retire_idle_channels();
    void poll_once(uint64_t now);
    void fail_all(std::deque<Request> batch);
    void deliver(const Request& r, const Answer& a);
    void finish(uint64_t id, const Answer& a);

    std::mutex mu_;
    std::condition_variable idle_;
    State state_ = State::Idle;
    bool unloaded_ = false;
    std::thread thread_;
    std::thread::id thread_id_; // of the running thread, kept while it stops
    MORL_WAKE wake_ = MORL_INVALID_WAKE;
    std::deque<Request> queue_;
    size_t outstanding_ = 0; // accepted, callback not yet started

    // Resolver thread only.
    struct Lookup {
        Request request;
        Channel* channel = nullptr;
    };
    std::map<uint64_t, Lookup> lookups_; // by our own id, the c-ares argument
    uint64_t next_lookup_ = 1;
    std::vector<std::unique_ptr<Channel>> channels_; // the last one takes new look-ups
};

// Never destroyed: requests may come from detached threads while the process ends.
Resolver& resolver() {
    static Resolver& r = *new Resolver;
    return r;
}

UnloadStop::~UnloadStop() { resolver().stop(true); }

void Resolver::run() {
    MORL_PthreadSetName(kThreadName);
    for (;;) {
        std::deque<Request> batch;
        bool stopping = false;
        {
            std::lock_guard<std::mutex> lk(mu_);
            batch.swap(queue_);
            stopping = state_ == State::Stopping;
        }
        if (stopping) {
            fail_all(std::move(batch));
            return;
        }
        for (Request& r : batch) {
            begin(std::move(r));
        }
        const uint64_t now = MORL_GetSystemTime();
        expire(now);
        retire_idle_channels();
        poll_once(now);
    }
}

void Resolver::deliver(const Request& r, const Answer& a) {
    {
        std::lock_guard<std::mutex> lk(mu_);
        --outstanding_;
    }
    RAVN_DnsAddrRecord record{RAVN_DNS_ADDR_IPV4, 0, a.result == RAVN_DNS_OK ? a.addr : 0};
    const bool ok = a.result == RAVN_DNS_OK;
    r.callback(a.result, r.host.c_str(), &record, ok ? 1 : 0, ok ? a.ttl : 0, r.req_id);
}

void Resolver::begin(Request r) {
    if (r.literal) {
        deliver(r, Answer{RAVN_DNS_OK, r.literal_addr, 0});
        return;
    }
    Channel* ch = current_channel();
    if (ch == nullptr) {
        deliver(r, Answer{});
        return;
    }
    const uint64_t id = next_lookup_++;
    const std::string host = r.host;
    lookups_[id] = Lookup{std::move(r), ch};
    ++ch->pending;
    ares_addrinfo_hints hints{};
    hints.ai_family = AF_INET;
    hints.ai_flags = ARES_AI_NOSORT;
    // May answer at once (hosts file, bad name): on_addrinfo then runs here.
    ares_getaddrinfo(ch->channel, host.c_str(), nullptr, &hints, on_addrinfo, reinterpret_cast<void*>(id));
}

void Resolver::on_addrinfo(void* arg, int status, int, ares_addrinfo* info) {
    const Answer a = answer_of(status, info);
    if (info != nullptr) {
        ares_freeaddrinfo(info);
    }
    resolver().finish(reinterpret_cast<uint64_t>(arg), a);
}

// Answers look-up `id` unless its deadline or a stop answered it already.
void Resolver::finish(uint64_t id, const Answer& a) {
    auto it = lookups_.find(id);
    if (it == lookups_.end()) {
        return;
    }
    Lookup l = std::move(it->second);
    lookups_.erase(it);
    --l.channel->pending;
    deliver(l.request, a);
}

Channel* Resolver::current_channel() {
    const std::string servers = zeph_get_dns_servers();
    if (!channels_.empty() && channels_.back()->servers == servers) {
        return channels_.back().get();
    }
    static std::once_flag library_once;
    static int library_status = ARES_SUCCESS;
    std::call_once(library_once, [] { library_status = ares_library_init(ARES_LIB_INIT_ALL); });
    if (library_status != ARES_SUCCESS) {
        return nullptr;
    }
    auto ch = std::make_unique<Channel>();
    ch->servers = servers;
    ares_options options{};
    options.timeout = kAresTimeoutMs;
    options.tries = kAresTries;
    if (ares_init_options(&ch->channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES) != ARES_SUCCESS) {
        ch->channel = nullptr;
        return nullptr;
    }
    if (!servers.empty() && ares_set_servers_ports_csv(ch->channel, servers.c_str()) != ARES_SUCCESS) {
        return nullptr;
    }
    channels_.push_back(std::move(ch));
    return channels_.back().get();
}

void Resolver::expire(uint64_t now) {
    std::vector<uint64_t> late;
    for (const auto& entry : lookups_) {
        if (entry.second.request.deadline_ms <= now) {
            late.push_back(entry.first);
        }
    }
    for (uint64_t id : late) {
        finish(id, Answer{RAVN_DNS_ERR_TIMEOUT, 0, 0});
    }
}

// Channels of an earlier setting go once nothing of ours waits on them;
// what c-ares still asks there is answered to nobody.
void Resolver::retire_idle_channels() {
    if (channels_.size() < 2) {
        return;
    }
    channels_.erase(std::remove_if(channels_.begin(), channels_.end() - 1,
                                   [](const std::unique_ptr<Channel>& c) { return c->pending == 0; }),
                    channels_.end() - 1);
}

void Resolver::poll_once(uint64_t now) {
    std::vector<MORL_PollFd> fds;
    std::vector<Channel*> owners;
    fds.push_back(MORL_PollFd{wake_, MORL_POLLRDNORM, 0});
    owners.push_back(nullptr);
    int timeout_ms = kMaxPollMs;
    for (const auto& ch : channels_) {
        ares_socket_t socks[ARES_GETSOCK_MAXNUM];
        const int bits = ares_getsock(ch->channel, socks, ARES_GETSOCK_MAXNUM);
        for (int i = 0; i < ARES_GETSOCK_MAXNUM; ++i) {
            int16_t events = 0;
            if (ARES_GETSOCK_READABLE(bits, i)) {
                events |= MORL_POLLRDNORM;
            }
            if (ARES_GETSOCK_WRITABLE(bits, i)) {
                events |= MORL_POLLWRNORM;
            }
            if (events != 0) {
                fds.push_back(MORL_PollFd{socks[i], events, 0});
                owners.push_back(ch.get());
            }
        }
        timeval limit{kMaxPollMs / kMillisPerSecond, (kMaxPollMs % kMillisPerSecond) * kMicrosPerMilli};
        timeval left{};
        const timeval* t = ares_timeout(ch->channel, &limit, &left);
        const int ms = static_cast<int>(t->tv_sec * kMillisPerSecond + (t->tv_usec + kMicrosPerMilli - 1) / kMicrosPerMilli);
        timeout_ms = std::min(timeout_ms, ms);
    }
    for (const auto& entry : lookups_) {
        const uint64_t deadline = entry.second.request.deadline_ms;
        timeout_ms = std::min<int64_t>(timeout_ms, deadline > now ? static_cast<int64_t>(deadline - now) : 0);
    }
    MORL_Poll(fds.data(), static_cast<uint32_t>(fds.size()), timeout_ms);
    if (fds[0].revents != 0) {
        MORL_WakeDrain(wake_);
    }
    constexpr int16_t kReadable = MORL_POLLRDNORM | MORL_POLLERR | MORL_POLLHUP | MORL_POLLNVAL;
    for (size_t i = 1; i < fds.size(); ++i) {
        if (fds[i].revents != 0) {
            ares_process_fd(owners[i]->channel, (fds[i].revents & kReadable) != 0 ? fds[i].fd : ARES_SOCKET_BAD,
                            (fds[i].revents & MORL_POLLWRNORM) != 0 ? fds[i].fd : ARES_SOCKET_BAD);
        }
    }
    // c-ares's own time-outs and retries.
    for (const auto& ch : channels_) {
        ares_process_fd(ch->channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    }
}

// The resolver stops: every request still waiting gets its one answer.
void Resolver::fail_all(std::deque<Request> batch) {
    const Answer stopped{RAVN_DNS_ERR_STOPPED, 0, 0};
    for (const Request& r : batch) {
        deliver(r, stopped);
    }
    std::vector<uint64_t> ids;
    for (const auto& entry : lookups_) {
        ids.push_back(entry.first);
    }
    for (uint64_t id : ids) {
        finish(id, stopped);
    }
    channels_.clear(); // c-ares's late callbacks find no look-up
}

} // namespace

uint32_t RAVN_NETB_DnsGetIpByAsynResolve(const char* host, uint32_t /*flags*/, uint32_t /*param*/,
                                         RAVN_DnsResultCallback callback, uint64_t req_id, uint32_t /*reserved*/) {
    if (host == nullptr || callback == nullptr) {
        return RAVN_DNS_ERR_PARAM;
    }
    Request r;
    r.callback = callback;
    r.req_id = req_id;
    r.literal = MORL_Inet_Pton(MORL_AF_INET, host, &r.literal_addr, kIpv4Size) == 1;
    if (!r.literal && !is_host_name(host)) {
        return RAVN_DNS_ERR_PARAM;
    }
    r.host = host;
    return resolver().submit(std::move(r));
}

int RAVN_NETB_DnsStop() { return resolver().stop(false); }
