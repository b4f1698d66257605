// The OS adapter on real loopback sockets and the real timer thread, and the
// bounds-checked copies the library uses. Runs on the test's threads.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "os_adapter/morl_os.h"
#include "peers.h"
#include "securec/securec.h"

namespace {

using zeph_test::wait_until;

// Callbacks are plain functions; the argument points at one of these.
struct Probe {
    std::mutex mu;
    std::vector<uint64_t> seen; // arguments, in firing order
    std::atomic<int> fired{0};
    std::function<void(uint64_t)> action; // runs inside the callback
};
struct Arg {
    Probe* probe;
    uint64_t value;
};

void record_cb(uint64_t a) {
    Arg* arg = reinterpret_cast<Arg*>(a);
    if (arg->probe->action) arg->probe->action(arg->value);
    std::lock_guard<std::mutex> lk(arg->probe->mu);
    arg->probe->seen.push_back(arg->value);
    arg->probe->fired.fetch_add(1);
}

uint64_t as_arg(Arg* a) { return reinterpret_cast<uint64_t>(a); }

// Fire-once timers (mode 2) fire in deadline order and are gone afterwards; a
// callback that stops, frees and arms timers must not wait for its own thread.
TEST(OsTimer, FireOnceOrderAndCallbacksManagingTimers) {
    Probe p;
    std::vector<Arg> args;
    for (uint64_t d : {120, 20, 80, 40, 160, 60}) args.push_back(Arg{&p, d});
    std::vector<MORL_TimerHandle> ts;
    for (Arg& a : args) {
        ts.push_back(MORL_CreateRelTimerM(record_cb, 2, "once"));
        ASSERT_EQ(MORL_StartRelTimer(ts.back(), static_cast<uint32_t>(a.value), as_arg(&a)), 0);
    }
    ASSERT_TRUE(wait_until([&] { return p.fired.load() == 6; }, 3000));
    EXPECT_EQ(p.seen, (std::vector<uint64_t>{20, 40, 60, 80, 120, 160}));
    ASSERT_TRUE(wait_until([&] { return MORL_StopRelTimer_Safe(ts[4]) != 0; }, 1000));
    for (MORL_TimerHandle t : ts) // already gone
        EXPECT_TRUE(MORL_FreeRelTimer(t) != 0 && MORL_StartRelTimer(t, 1, 0) != 0);
    MORL_SleepMs(50);
    EXPECT_EQ(p.fired.load(), 6);

    Probe outer, inner;
    Arg outer_arg{&outer, 1}, inner_arg{&inner, 7};
    MORL_TimerHandle self = MORL_CreateRelTimerM(record_cb, 0, "self");
    std::atomic<int> results{-1};
    outer.action = [&](uint64_t) {
        int r = MORL_StopRelTimer_Safe(self);
        r |= MORL_FreeRelTimer(self);
        r |= MORL_StartRelTimer(MORL_CreateRelTimerM(record_cb, 2, "child"), 5, as_arg(&inner_arg));
        results = r;
    };
    ASSERT_EQ(MORL_StartRelTimer(self, 1, as_arg(&outer_arg)), 0);
    ASSERT_TRUE(wait_until([&] { return inner.fired.load() == 1; }, 3000));
    EXPECT_EQ(results.load(), 0);
    EXPECT_NE(MORL_StopRelTimer_Safe(self), 0); // freed inside its callback
}

// Stop and free wait for a running callback; none starts after either returned.
TEST(OsTimer, NoCallbackRunsAfterStopOrFreeReturns) {
    for (bool use_free : {false, true}) {
        Probe p;
        std::atomic<bool> entered{false}, finished{false};
        p.action = [&](uint64_t) {
            entered = true;
            MORL_SleepMs(150);
            finished = true;
        };
        Arg arg{&p, 1};
        MORL_TimerHandle t = MORL_CreateRelTimerM(record_cb, 0, "slow");
        ASSERT_EQ(MORL_StartRelTimer(t, 1, as_arg(&arg)), 0);
        ASSERT_TRUE(wait_until([&] { return entered.load(); }, 3000));
        EXPECT_EQ(use_free ? MORL_FreeRelTimer(t) : MORL_StopRelTimer_Safe(t), 0);
        EXPECT_TRUE(finished.load()) << (use_free ? "free" : "stop") << " returned during the callback";
        EXPECT_EQ(use_free ? 0 : MORL_FreeRelTimer(t), 0);
        ASSERT_TRUE(wait_until([&] { return p.fired.load() == 1; }, 1000)); // its record lands last
    }

    // Stops before, around and after the deadline: checked on entry and exit.
    struct Ctx {
        std::atomic<bool> stopped{false};
        std::atomic<int>* fired;
    };
    static void (*const cb)(uint64_t) = [](uint64_t a) {
        Ctx* c = reinterpret_cast<Ctx*>(a);
        EXPECT_FALSE(c->stopped.load()) << "callback after its stop returned";
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        EXPECT_FALSE(c->stopped.load()) << "stop returned while its callback ran";
        c->fired->fetch_add(1);
    };
    std::atomic<int> fired{0};
    std::vector<std::thread> threads;
    for (int k = 0; k < 4; ++k) {
        threads.emplace_back([&, k] {
            for (int i = 0; i < 300; ++i) {
                Ctx c{{false}, &fired};
                MORL_TimerHandle t = MORL_CreateRelTimerM(cb, 0, "hammer");
                ASSERT_EQ(MORL_StartRelTimer(t, 1, reinterpret_cast<uint64_t>(&c)), 0);
                std::this_thread::sleep_for(std::chrono::microseconds((i * 7 + k * 13) % 1500));
                MORL_StopRelTimer_Safe(t);
                c.stopped = true;
                if (i % 10 == 0) MORL_SleepMs(3); // give a late callback a chance to show
                MORL_FreeRelTimer(t);
            }
        });
    }
    for (std::thread& th : threads) th.join();
    EXPECT_TRUE(fired.load() > 0 && fired.load() < 1200) << fired.load(); // both orders were exercised
}

MORL_SOCKET tcp_socket() { return MORL_Socket(MORL_AF_INET, MORL_SOCK_STREAM, MORL_IPPROTO_TCP); }

// A non-blocking connect's SO_ERROR once select sees it writable (-1: a step failed).
int connect_outcome(MORL_SOCKET s, uint16_t port) {
    uint32_t one = 1;
    MORL_SockAddrIn to{};
    to.sin_family = MORL_AF_INET;
    to.sin_port = htons(port);
    to.sin_addr = MORL_InetAddr("127.0.0.1");
    if (MORL_IoctlSocket(s, MORL_FIONBIO, &one) != 0 || MORL_Connect(s, &to, sizeof(to)) != -1 ||
        MORL_GetLastSocketErr() != MORL_WSAEWOULDBLOCK)
        return -1;
    MORL_FdSet wr;
    MORL_FD_ZERO(&wr);
    MORL_FD_SET(s, &wr);
    MORL_TimeVal tv{2, 0};
    if (MORL_Select(0, nullptr, &wr, nullptr, &tv) != 1 || !MORL_FD_ISSET(s, &wr)) return -1;
    int err = -1, len = 4;
    return MORL_GetSockOpt(s, MORL_SOL_SOCKET, MORL_SO_ERROR, &err, &len) == 0 ? err : -1;
}

// One connection through its life in Windows terms: connect, options, poll bits, errors.
TEST(OsSocket, ConnectionLifeInWindowsTerms) {
    MORL_SOCKET c = tcp_socket();
    EXPECT_EQ(connect_outcome(c, zeph_test::closed_tcp_port()), MORL_WSAECONNREFUSED);
    MORL_CloseSocket(c);
    zeph_test::TcpListener srv;
    c = tcp_socket();
    ASSERT_EQ(connect_outcome(c, srv.port()), 0);
    ASSERT_TRUE(srv.wait_accepts(1, 2000));
    MORL_SockAddrIn local{};
    int len = 16;
    EXPECT_TRUE(MORL_GetSockName(c, &local, &len) == 0 && local.sin_addr == 0x0100007Fu && local.sin_port != 0);
    const int on = 1;
    const char one = 1; // a one-byte BOOL, as Windows takes it
    int reuse = 0, nodelay = 0;
    len = 4;
    ASSERT_TRUE(MORL_SetSockOpt(c, MORL_SOL_SOCKET, MORL_SO_REUSEADDR, &one, 1) == 0 &&
                MORL_SetSockOpt(c, MORL_IPPROTO_TCP, MORL_TCP_NODELAY, &on, 4) == 0 &&
                MORL_GetSockOpt(c, MORL_SOL_SOCKET, MORL_SO_REUSEADDR, &reuse, &len) == 0 &&
                MORL_GetSockOpt(c, MORL_IPPROTO_TCP, MORL_TCP_NODELAY, &nodelay, &len) == 0);
    EXPECT_TRUE(reuse != 0 && nodelay != 0);

    char buf[8];
    EXPECT_TRUE(MORL_Recv(c, buf, sizeof(buf), 0) == -1 && MORL_GetLastSocketErr() == MORL_WSAEWOULDBLOCK);
    // Writable, nothing to read; the unused record stays quiet.
    MORL_PollFd fds[3] = {{c, MORL_POLLIN, 0}, {-1, MORL_POLLIN, 0}, {c, MORL_POLLWRNORM, 0}};
    ASSERT_EQ(MORL_Poll(fds, 3, 0), 1);
    EXPECT_TRUE(fds[0].revents == 0 && fds[1].revents == 0 && fds[2].revents == MORL_POLLWRNORM)
        << fds[0].revents << " " << fds[1].revents << " " << fds[2].revents;
    ASSERT_EQ(MORL_Send(srv.connection_fd(0), "abc", 3, 0), 3);
    EXPECT_TRUE(MORL_Poll(fds, 1, 2000) == 1 && fds[0].revents == MORL_POLLRDNORM) << fds[0].revents;
    ASSERT_EQ(MORL_Recv(c, buf, sizeof(buf), 0), 3);

    // The peer's close reads as a hang-up (and as readable: recv gives 0).
    srv.close_connections();
    ASSERT_EQ(MORL_Poll(fds, 1, 2000), 1);
    EXPECT_TRUE((fds[0].revents & MORL_POLLHUP) && !(fds[0].revents & ~(MORL_POLLRDNORM | MORL_POLLHUP)))
        << fds[0].revents;
    EXPECT_EQ(MORL_Recv(c, buf, sizeof(buf), 0), 0);

    // Writing on draws the reset (never SIGPIPE), then "not connected".
    ASSERT_TRUE(wait_until([&] { return MORL_Send(c, "x", 1, 0) < 0; }, 2000));
    const int e = MORL_GetLastSocketErr();
    EXPECT_TRUE(e == MORL_WSAECONNRESET || e == MORL_WSAENOTCONN) << e;
    EXPECT_TRUE(MORL_Send(c, "x", 1, 0) == -1 && MORL_GetLastSocketErr() == MORL_WSAENOTCONN);
    MORL_CloseSocket(c);

    EXPECT_EQ(MORL_InetAddr("10.1") & MORL_InetAddr("example.com"), 0xFFFFFFFFu); // no shorthand forms, no names

    // Text back from an address: the full width fits 16 bytes, less is refused.
    const uint32_t wide = MORL_InetAddr("255.255.255.254");
    char text[16];
    ASSERT_NE(MORL_Inet_Ntop(MORL_AF_INET, &wide, text, sizeof text), nullptr);
    EXPECT_STREQ(text, "255.255.255.254");
    EXPECT_TRUE(MORL_Inet_Ntop(MORL_AF_INET, &wide, text, 15) == nullptr && text[0] == 0) << text;
}

// A datagram longer than the buffer fails the read with 10040, as on Windows,
// and is gone; a stream hands over what fits and keeps the rest.
TEST(OsSocket, DatagramLongerThanTheBufferFailsTheRead) {
    MORL_SOCKET u = MORL_Socket(MORL_AF_INET, MORL_SOCK_DGRAM, MORL_IPPROTO_UDP);
    MORL_SockAddrIn self{};
    self.sin_family = MORL_AF_INET;
    self.sin_addr = MORL_InetAddr("127.0.0.1");
    int len = sizeof self;
    ASSERT_TRUE(MORL_Bind(u, &self, sizeof self) == 0 && MORL_GetSockName(u, &self, &len) == 0);
    ASSERT_TRUE(MORL_Sendto(u, "123456", 6, 0, &self, sizeof self) == 6 &&
                MORL_Sendto(u, "1234", 4, 0, &self, sizeof self) == 4);
    char buf[4];
    MORL_SockAddrIn from{};
    len = sizeof from;
    MORL_PollFd pfd{u, MORL_POLLIN, 0};
    ASSERT_EQ(MORL_Poll(&pfd, 1, 2000), 1);
    EXPECT_EQ(MORL_Recvfrom(u, buf, sizeof buf, 0, &from, &len), -1);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAEMSGSIZE);
    ASSERT_EQ(MORL_Poll(&pfd, 1, 2000), 1);
    EXPECT_EQ(MORL_Recvfrom(u, buf, sizeof buf, 0, &from, &len), 4);
    EXPECT_EQ(from.sin_port, self.sin_port);
    MORL_CloseSocket(u);

    zeph_test::TcpListener srv;
    MORL_SOCKET c = tcp_socket();
    ASSERT_EQ(connect_outcome(c, srv.port()), 0);
    ASSERT_TRUE(srv.wait_accepts(1, 2000));
    ASSERT_EQ(MORL_Send(srv.connection_fd(0), "abcdef", 6, 0), 6);
    pfd.fd = c;
    ASSERT_EQ(MORL_Poll(&pfd, 1, 2000), 1);
    EXPECT_EQ(MORL_Recvfrom(c, buf, sizeof buf, 0, nullptr, nullptr), 4);
    EXPECT_EQ(MORL_Recvfrom(c, buf, sizeof buf, 0, nullptr, nullptr), 2);
    MORL_CloseSocket(c);
}

// The scheduler's state letter of a thread of this process ('S' asleep).
char thread_state(long tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() ? line[close + 2] : '?';
}

// A wake beside a socket: signals coalesce until drained and end a poll without time-out.
TEST(OsWake, PollReturnsOnASignalAndTheDrainTakesAllSignals) {
    const MORL_WAKE wake = MORL_WakeCreate();
    ASSERT_NE(wake, MORL_INVALID_WAKE);
    zeph_test::TcpListener srv;
    MORL_SOCKET c = tcp_socket();
    ASSERT_EQ(connect_outcome(c, srv.port()), 0);
    MORL_PollFd fds[2] = {{c, MORL_POLLRDNORM, 0}, {wake, MORL_POLLRDNORM, 0}};
    EXPECT_TRUE(MORL_Poll(fds, 2, 0) == 0 && MORL_WakeDrain(wake) == 0);
    ASSERT_TRUE(MORL_WakeSignal(wake) == 0 && MORL_WakeSignal(wake) == 0);
    ASSERT_EQ(MORL_Poll(fds, 2, 0), 1);
    EXPECT_EQ(fds[1].revents, MORL_POLLRDNORM);
    EXPECT_EQ(MORL_WakeDrain(wake), 1);
    EXPECT_EQ(MORL_Poll(fds, 2, 0), 0) << "one drain takes both signals";

    std::atomic<int> ready{-2};
    std::atomic<long> tid{0};
    std::thread sleeper([&] {
        MORL_PollFd mine[2] = {{c, MORL_POLLRDNORM, 0}, {wake, MORL_POLLRDNORM, 0}};
        tid = ::syscall(SYS_gettid);
        ready = MORL_Poll(mine, 2, -1);
    });
    ASSERT_TRUE(wait_until([&] { return tid != 0 && thread_state(tid) == 'S'; }, 2000)); // asleep in the poll
    ASSERT_EQ(MORL_WakeSignal(wake), 0);
    sleeper.join();
    EXPECT_TRUE(ready.load() == 1 && MORL_WakeDrain(wake) == 1);
    EXPECT_EQ(MORL_WakeClose(wake), 0);
    MORL_CloseSocket(c);
    EXPECT_TRUE(MORL_WakeSignal(MORL_INVALID_WAKE) == -1 && MORL_GetLastSocketErr() == MORL_WSAEBADF);
}

// A recursive mutex released once still excludes; a sleep outlasts signals; clocks agree; names are cut.
TEST(OsSystem, MutexSleepClocksAndThreadNames) {
    alignas(8) unsigned char block[MORL_MUTEX_BLOCK_SIZE];
    ASSERT_TRUE(MORL_MutexInitRecursive(block, 0) == 0 && MORL_MutexLock(block) == 0 && MORL_MutexLock(block) == 0 &&
                MORL_MutexUnLock(block) == 0);
    std::atomic<bool> got{false};
    std::thread other([&] {
        MORL_MutexLock(block);
        got = true;
        MORL_MutexUnLock(block);
    });
    MORL_SleepMs(50);
    EXPECT_FALSE(got.load()) << "lock taken while still held once";
    ASSERT_EQ(MORL_MutexUnLock(block), 0);
    other.join();
    EXPECT_TRUE(got.load() && MORL_MutexDestroy(block) == 0);

    signal(SIGUSR1, [](int) {}); // a handler, so that the signal interrupts the sleep
    int64_t freq = 0, c0 = 0, c1 = 0;
    ASSERT_EQ(MORL_QueryPerformanceFrequency(&freq), 0);
    MORL_QueryPerformanceCounter(&c0);
    const uint64_t t0 = MORL_GetSystemTime();
    std::atomic<bool> done{false};
    std::thread sleeper([&] {
        MORL_SleepMs(200);
        done = true;
    });
    for (int i = 0; i < 5 && !done.load(); ++i) {
        MORL_SleepMs(20);
        pthread_kill(sleeper.native_handle(), SIGUSR1);
    }
    sleeper.join();
    MORL_QueryPerformanceCounter(&c1);
    const uint64_t elapsed = MORL_GetSystemTime() - t0;
    EXPECT_GE(elapsed, 200u) << "the sleep ended early on a signal";
    EXPECT_NEAR(static_cast<double>(c1 - c0) * 1000.0 / static_cast<double>(freq), static_cast<double>(elapsed), 2.0);

    std::thread named([] {
        ASSERT_EQ(MORL_PthreadSetName("a_rather_long_thread_name"), 0);
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        EXPECT_STREQ(name, "a_rather_long_t");
    });
    named.join();
}

TEST(SecureC, RefuseToOverrunAndClearTheDestination) {
    char d[8];
    EXPECT_TRUE(memcpy_s(d, sizeof(d), "12345678", 8) == 0 && std::memcmp(d, "12345678", 8) == 0);
    EXPECT_TRUE(memcpy_s(d, sizeof(d), "123456789", 9) != 0 && d[0] == 0) << "an overrun clears the destination";
    // Refused: no source, a negative size cast, overlap, a fill beyond the end.
    EXPECT_TRUE(memcpy_s(d, sizeof(d), nullptr, 1) && memcpy_s(d, static_cast<size_t>(-1), "1", 1) &&
                memcpy_s(d + 1, 7, d, 4) && memset_s(d, 4, 'x', 5));

    // The library advances only on a positive count: what does not fit gives -1, not a cut text.
    EXPECT_TRUE(sprintf_s(d, sizeof(d), "%d-%s", 12, "abcd") == 7 && std::string(d) == "12-abcd") << d;
    EXPECT_TRUE(sprintf_s(d, sizeof(d), "%d-%s", 12, "abcde") == -1 && d[0] == 0) << d;
}

} // namespace
