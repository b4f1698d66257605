// The OS adapter on real loopback sockets and the real timer thread, and the
// bounds-checked copies.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstring>
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

// ---- timers -------------------------------------------------------------------------
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
    if (arg->probe->action) {
        arg->probe->action(arg->value);
    }
    {
        std::lock_guard<std::mutex> lk(arg->probe->mu);
        arg->probe->seen.push_back(arg->value);
    }
    arg->probe->fired.fetch_add(1);
}

uint64_t as_arg(Arg* a) { return reinterpret_cast<uint64_t>(a); }

TEST(OsTimer, FiresOncePerArmingInDeadlineOrder) {
    Probe p;
    const uint32_t delays[] = {120, 20, 80, 40, 160, 60};
    std::vector<Arg> args;
    for (uint32_t d : delays) {
        args.push_back(Arg{&p, d});
    }
    std::vector<MORL_TimerHandle> ts;
    for (Arg& a : args) {
        MORL_TimerHandle t = MORL_CreateRelTimerM(record_cb, 0, "order");
        ASSERT_NE(t, 0u);
        for (MORL_TimerHandle other : ts) {
            ASSERT_NE(other, t);
        }
        ts.push_back(t);
        ASSERT_EQ(MORL_StartRelTimer(t, static_cast<uint32_t>(a.value), as_arg(&a)), 0);
    }
    ASSERT_TRUE(wait_until([&] { return p.fired.load() == 6; }, 3000));
    EXPECT_EQ(p.seen, (std::vector<uint64_t>{20, 40, 60, 80, 120, 160}));
    MORL_SleepMs(50);
    EXPECT_EQ(p.fired.load(), 6);
    // A caller-owned timer survives its firing and can be armed again.
    ASSERT_EQ(MORL_StartRelTimer(ts[0], 1, as_arg(&args[0])), 0);
    ASSERT_TRUE(wait_until([&] { return p.fired.load() == 7; }, 3000));
    for (MORL_TimerHandle t : ts) {
        EXPECT_EQ(MORL_FreeRelTimer(t), 0);
    }
    EXPECT_NE(MORL_FreeRelTimer(ts[0]), 0); // already freed
    EXPECT_NE(MORL_StartRelTimer(ts[0], 1, 0), 0);
    EXPECT_NE(MORL_FreeRelTimer(0), 0);
    EXPECT_EQ(MORL_CreateRelTimerM(nullptr, 0, "none"), 0u);
}

TEST(OsTimer, ReArmRestartsDelayAndReplacesArgument) {
    Probe p;
    Arg first{&p, 1}, second{&p, 2};
    MORL_TimerHandle t = MORL_CreateRelTimerM(record_cb, 0, "rearm");
    ASSERT_NE(t, 0u);
    const uint64_t t0 = MORL_GetSystemTime();
    ASSERT_EQ(MORL_StartRelTimer(t, 150, as_arg(&first)), 0);
    MORL_SleepMs(100);
    const uint64_t t1 = MORL_GetSystemTime();
    ASSERT_EQ(MORL_StartRelTimer(t, 150, as_arg(&second)), 0);
    ASSERT_TRUE(wait_until([&] { return p.fired.load() >= 1; }, 3000));
    const uint64_t fired_at = MORL_GetSystemTime();
    EXPECT_GE(fired_at - t1, 150u);
    EXPECT_GE(fired_at - t0, 250u);
    MORL_SleepMs(100);
    EXPECT_EQ(p.seen, std::vector<uint64_t>{2});
    EXPECT_EQ(MORL_FreeRelTimer(t), 0);
}

// A callback stops and frees its own timer, and makes, arms and frees others.
TEST(OsTimer, CallbackManagesTimersIncludingItsOwn) {
    Probe inner;
    Arg inner_arg{&inner, 7};
    Probe outer;
    Arg outer_arg{&outer, 1};
    MORL_TimerHandle self = MORL_CreateRelTimerM(record_cb, 0, "self");
    ASSERT_NE(self, 0u);
    std::atomic<int> results{-1};
    outer.action = [&](uint64_t) {
        int r = MORL_StopRelTimer_Safe(self); // must return at once
        MORL_TimerHandle other = MORL_CreateRelTimerM(record_cb, 2, "child");
        r |= other == 0 ? 1 : MORL_StartRelTimer(other, 5, as_arg(&inner_arg));
        MORL_TimerHandle gone = MORL_CreateRelTimerM(record_cb, 0, "gone");
        r |= MORL_StartRelTimer(gone, 1, as_arg(&inner_arg));
        r |= MORL_FreeRelTimer(gone); // never fires
        r |= MORL_FreeRelTimer(self);
        results = r;
    };
    ASSERT_EQ(MORL_StartRelTimer(self, 1, as_arg(&outer_arg)), 0);
    ASSERT_TRUE(wait_until([&] { return inner.fired.load() == 1; }, 3000));
    EXPECT_EQ(results.load(), 0);
    MORL_SleepMs(30);
    EXPECT_EQ(inner.fired.load(), 1);
    EXPECT_NE(MORL_StopRelTimer_Safe(self), 0); // freed inside its callback
}

TEST(OsTimer, StopAndFreeWaitForARunningCallback) {
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
        if (!use_free) {
            EXPECT_EQ(MORL_FreeRelTimer(t), 0);
        }
        // The probe's record is written after the action; let it land.
        ASSERT_TRUE(wait_until([&] { return p.fired.load() == 1; }, 1000));
    }
}

// Several threads arm and stop their own timers right at the deadline; any
// callback seen after its stop returned is a fault.
TEST(OsTimer, NoCallbackAfterStopReturns) {
    struct Ctx {
        std::atomic<bool> stopped{false};
        std::atomic<int> late{0};
        std::atomic<int> fired{0};
    };
    // Looks at the flag on entry and again on the way out: a stop that
    // returned while the callback ran shows up as well as a late firing.
    static void (*const cb)(uint64_t) = [](uint64_t a) {
        Ctx* c = reinterpret_cast<Ctx*>(a);
        bool late = c->stopped.load();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        late = late || c->stopped.load();
        c->late.fetch_add(late ? 1 : 0);
        c->fired.fetch_add(1);
    };
    std::atomic<int> late{0}, fired{0}, stops{0};
    std::vector<std::thread> threads;
    for (int k = 0; k < 4; ++k) {
        threads.emplace_back([&, k] {
            for (int i = 0; i < 300; ++i) {
                Ctx c;
                MORL_TimerHandle t = MORL_CreateRelTimerM(cb, 0, "hammer");
                if (t == 0 || MORL_StartRelTimer(t, 1, reinterpret_cast<uint64_t>(&c)) != 0) {
                    late.fetch_add(1000);
                    return;
                }
                // Stop before, around and after the deadline.
                std::this_thread::sleep_for(std::chrono::microseconds((i * 7 + k * 13) % 1500));
                MORL_StopRelTimer_Safe(t);
                c.stopped = true;
                stops.fetch_add(1);
                if (i % 10 == 0) {
                    MORL_SleepMs(3); // give a late callback a chance to show
                }
                MORL_FreeRelTimer(t);
                late.fetch_add(c.late.load());
                fired.fetch_add(c.fired.load());
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(stops.load(), 1200);
    EXPECT_GT(fired.load(), 0); // both orders were exercised
    EXPECT_LT(fired.load(), 1200);
}

TEST(OsTimer, FireOnceModeReleasesItself) {
    Probe p;
    std::vector<Arg> args(50, Arg{&p, 0});
    std::vector<MORL_TimerHandle> ts;
    for (Arg& a : args) {
        MORL_TimerHandle t = MORL_CreateRelTimerM(record_cb, 2, "once");
        ASSERT_NE(t, 0u);
        ASSERT_EQ(MORL_StartRelTimer(t, 2, as_arg(&a)), 0);
        ts.push_back(t);
    }
    ASSERT_TRUE(wait_until([&] { return p.fired.load() == 50; }, 3000));
    // The handles are gone once their callbacks returned; touching them is harmless.
    ASSERT_TRUE(wait_until([&] { return MORL_StopRelTimer_Safe(ts.back()) != 0; }, 1000));
    for (MORL_TimerHandle t : ts) {
        EXPECT_NE(MORL_FreeRelTimer(t), 0);
        EXPECT_NE(MORL_StartRelTimer(t, 1, 0), 0);
    }
    MORL_SleepMs(20);
    EXPECT_EQ(p.fired.load(), 50);
}

// ---- sockets ---------------------------------------------------------------------------
MORL_SockAddrIn loopback(uint16_t port) {
    MORL_SockAddrIn a{};
    a.sin_family = MORL_AF_INET;
    a.sin_port = htons(port);
    a.sin_addr = MORL_InetAddr("127.0.0.1");
    return a;
}

void set_nonblocking(MORL_SOCKET s) {
    uint32_t one = 1;
    ASSERT_EQ(MORL_IoctlSocket(s, MORL_FIONBIO, &one), 0);
}

// Starts a non-blocking connect, waits for writability through select and
// returns SO_ERROR (-1 when a step failed).
int connect_outcome(MORL_SOCKET s, uint16_t port) {
    uint32_t one = 1;
    MORL_SockAddrIn to = loopback(port);
    if (MORL_IoctlSocket(s, MORL_FIONBIO, &one) != 0 || MORL_Connect(s, &to, sizeof(to)) != -1 ||
        MORL_GetLastSocketErr() != MORL_WSAEWOULDBLOCK) {
        return -1;
    }
    MORL_FdSet wr;
    MORL_FD_ZERO(&wr);
    MORL_FD_SET(s, &wr);
    MORL_FD_SET(s, &wr); // a socket is in a set once
    MORL_TimeVal tv{2, 0};
    if (wr.fd_count != 1 || MORL_Select(0, nullptr, &wr, nullptr, &tv) != 1 || !MORL_FD_ISSET(s, &wr)) {
        return -1;
    }
    int err = -1, len = 4;
    return MORL_GetSockOpt(s, MORL_SOL_SOCKET, MORL_SO_ERROR, &err, &len) == 0 ? err : -1;
}

TEST(OsSocket, NonBlockingConnectReportsOutcomeThroughSelect) {
    MORL_SOCKET s = MORL_Socket(MORL_AF_INET, MORL_SOCK_STREAM, MORL_IPPROTO_TCP);
    EXPECT_EQ(connect_outcome(s, zeph_test::closed_tcp_port()), MORL_WSAECONNREFUSED);
    MORL_CloseSocket(s);
    zeph_test::TcpListener srv;
    ASSERT_TRUE(srv.ok());
    s = MORL_Socket(MORL_AF_INET, MORL_SOCK_STREAM, MORL_IPPROTO_TCP);
    EXPECT_EQ(connect_outcome(s, srv.port()), 0);
    MORL_SockAddrIn local{};
    int len = 16;
    ASSERT_EQ(MORL_GetSockName(s, &local, &len), 0);
    EXPECT_EQ(local.sin_addr, MORL_InetAddr("127.0.0.1"));
    EXPECT_NE(local.sin_port, 0);
    MORL_CloseSocket(s);
}

// A client connected to a Keep listener; the server side is srv.connection_fd(0).
MORL_SOCKET connected_client(zeph_test::TcpListener& srv) {
    MORL_SOCKET c = MORL_Socket(MORL_AF_INET, MORL_SOCK_STREAM, MORL_IPPROTO_TCP);
    MORL_SockAddrIn to = loopback(srv.port());
    if (MORL_Connect(c, &to, sizeof(to)) != 0 || !srv.wait_accepts(1, 2000)) {
        MORL_CloseSocket(c);
        return -1;
    }
    return c;
}

TEST(OsSocket, PollTranslatesEventBits) {
    zeph_test::TcpListener srv;
    MORL_SOCKET c = connected_client(srv);
    ASSERT_GE(c, 0);
    const int16_t known = MORL_POLLRDNORM | MORL_POLLRDBAND | MORL_POLLPRI | MORL_POLLWRNORM | MORL_POLLWRBAND |
                          MORL_POLLERR | MORL_POLLHUP | MORL_POLLNVAL;
    MORL_PollFd fds[3] = {{c, MORL_POLLIN, 0}, {-1, MORL_POLLIN, 0}, {c, MORL_POLLWRNORM, 0}};
    // Writable, nothing to read; the unused record stays quiet.
    ASSERT_EQ(MORL_Poll(fds, 3, 0), 1);
    EXPECT_EQ(fds[0].revents, 0);
    EXPECT_EQ(fds[1].revents, 0);
    EXPECT_EQ(fds[2].revents, MORL_POLLWRNORM);

    ASSERT_EQ(MORL_Send(srv.connection_fd(0), "abc", 3, 0), 3);
    ASSERT_EQ(MORL_Poll(fds, 1, 2000), 1);
    EXPECT_EQ(fds[0].revents, MORL_POLLRDNORM);
    uint32_t avail = 0;
    ASSERT_EQ(MORL_IoctlSocket(c, MORL_FIONREAD, &avail), 0);
    EXPECT_EQ(avail, 3u);
    char buf[8];
    ASSERT_EQ(MORL_Recv(c, buf, sizeof(buf), 0), 3);

    // The peer's close reads as a hang-up (and as readable: recv gives 0).
    srv.close_connections();
    ASSERT_EQ(MORL_Poll(fds, 1, 2000), 1);
    EXPECT_TRUE(fds[0].revents & MORL_POLLHUP);
    EXPECT_EQ(fds[0].revents & ~known, 0);
    EXPECT_EQ(MORL_Recv(c, buf, sizeof(buf), 0), 0);
    MORL_CloseSocket(c);
}

TEST(OsSocket, ErrorsReadAsWsaCodes) {
    zeph_test::TcpListener srv;
    MORL_SOCKET c = connected_client(srv);
    ASSERT_GE(c, 0);
    set_nonblocking(c);
    char buf[64];
    EXPECT_EQ(MORL_Recv(c, buf, sizeof(buf), 0), -1);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAEWOULDBLOCK);
    int v = 1;
    EXPECT_EQ(MORL_SetSockOpt(c, MORL_SOL_SOCKET, 0x7777, &v, 4), -1);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAENOPROTOOPT);

    // Writing to a connection the peer reset fails with an error, never SIGPIPE.
    srv.close_connections(true);
    ASSERT_TRUE(wait_until([&] { return MORL_Send(c, "x", 1, 0) < 0; }, 2000));
    const int e = MORL_GetLastSocketErr();
    EXPECT_TRUE(e == MORL_WSAECONNRESET || e == MORL_WSAENOTCONN) << e;
    EXPECT_EQ(MORL_Send(c, "x", 1, 0), -1);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAENOTCONN);
    MORL_CloseSocket(c);

    char text[64];
    ASSERT_EQ(MORL_StrError_S(text, sizeof(text), MORL_WSAECONNREFUSED), 0);
    EXPECT_STREQ(text, "Connection refused");
    ASSERT_EQ(MORL_StrError_S(text, 5, MORL_WSAECONNREFUSED), 0);
    EXPECT_STREQ(text, "Conn");
}

TEST(OsSocket, OptionsAndAddressesInWindowsUnits) {
    MORL_SOCKET u = MORL_Socket(MORL_AF_INET, MORL_SOCK_DGRAM, 0);
    ASSERT_GE(u, 0);
    auto get = [&](int level, int name) {
        int v = -1, len = 4;
        EXPECT_EQ(MORL_GetSockOpt(u, level, name, &v, &len), 0);
        return v;
    };
    const int tos = 0xB8, ttl = 9, ms = 1500;
    const char one = 1; // a one-byte BOOL, as Windows takes it
    ASSERT_EQ(MORL_SetSockOpt(u, MORL_IPPROTO_IP, MORL_IP_TOS, &tos, 4), 0);
    ASSERT_EQ(MORL_SetSockOpt(u, MORL_IPPROTO_IP, MORL_IP_TTL, &ttl, 4), 0);
    ASSERT_EQ(MORL_SetSockOpt(u, MORL_SOL_SOCKET, MORL_SO_RCVTIMEO, &ms, 4), 0);
    ASSERT_EQ(MORL_SetSockOpt(u, MORL_SOL_SOCKET, MORL_SO_REUSEADDR, &one, 1), 0);
    EXPECT_EQ(get(MORL_IPPROTO_IP, MORL_IP_TOS), tos);
    EXPECT_EQ(get(MORL_IPPROTO_IP, MORL_IP_TTL), ttl);
    EXPECT_EQ(get(MORL_SOL_SOCKET, MORL_SO_RCVTIMEO), ms);
    EXPECT_EQ(get(MORL_SOL_SOCKET, MORL_SO_TYPE), static_cast<int>(MORL_SOCK_DGRAM));
    EXPECT_NE(get(MORL_SOL_SOCKET, MORL_SO_REUSEADDR), 0);
    MORL_CloseSocket(u);

    uint8_t dst[4] = {};
    EXPECT_EQ(MORL_InetAddr("127.0.0.1"), 0x0100007Fu);
    EXPECT_EQ(MORL_InetAddr("10.1"), 0xFFFFFFFFu);
    EXPECT_EQ(MORL_InetAddr("example.com"), 0xFFFFFFFFu);
    EXPECT_EQ(MORL_Inet_Pton(MORL_AF_INET, "192.168.1.20", dst, 4), 1);
    EXPECT_EQ(dst[0] + dst[3], 192 + 20);
    EXPECT_EQ(MORL_Inet_Pton(MORL_AF_INET, "192.168.1", dst, 4), 0);
    EXPECT_EQ(MORL_Inet_Pton(MORL_AF_INET, "1.2.3.4", dst, 3), -1);
    EXPECT_EQ(MORL_Inet_Pton(23, "1.2.3.4", dst, 4), -1);
}

TEST(OsSocket, RawIcmpReadsIncludeTheIpHeader) {
    MORL_SOCKET s = MORL_Socket(MORL_AF_INET, MORL_SOCK_RAW, MORL_IPPROTO_ICMP);
    if (s < 0) {
        GTEST_SKIP() << "raw ICMP socket not permitted, error " << MORL_GetLastSocketErr();
    }
    // Echo Request, id 0x1234, seq 1, no payload; checksum worked out by hand.
    const uint8_t echo[8] = {8, 0, 0xE5, 0xCA, 0x12, 0x34, 0, 1};
    MORL_SockAddrIn to = loopback(0);
    ASSERT_EQ(MORL_Sendto(s, echo, sizeof(echo), 0, &to, sizeof(to)), 8);
    set_nonblocking(s);
    uint8_t buf[1500];
    // Our own request comes back too; look for the reply with our id.
    ASSERT_TRUE(wait_until([&] {
        const int n = MORL_Recv(s, buf, sizeof(buf), 0);
        if (n < 28) {
            return false;
        }
        const int ihl = (buf[0] & 0x0F) * 4;
        return buf[0] >> 4 == 4 && n == ihl + 8 && buf[ihl] == 0 && buf[ihl + 4] == 0x12;
    }, 2000));
    MORL_CloseSocket(s);
}

// ---- threads, time, mutex -------------------------------------------------------------------
TEST(OsSystem, RecursiveMutexExcludesOtherThreads) {
    alignas(8) unsigned char block[MORL_MUTEX_BLOCK_SIZE];
    ASSERT_EQ(MORL_MutexInitRecursive(block, 0), 0);
    ASSERT_EQ(MORL_MutexLock(block), 0);
    ASSERT_EQ(MORL_MutexLock(block), 0);
    ASSERT_EQ(MORL_MutexUnLock(block), 0);
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
    EXPECT_TRUE(got.load());
    EXPECT_EQ(MORL_MutexDestroy(block), 0);
    EXPECT_NE(MORL_MutexInitRecursive(nullptr, 0), 0);
    EXPECT_NE(MORL_MutexLock(block + 1), 0);
}

void on_usr1(int) {}

TEST(OsSystem, SleepSurvivesSignalsAndClocksAgree) {
    struct sigaction sa {};
    sa.sa_handler = on_usr1;
    sigaction(SIGUSR1, &sa, nullptr);
    int64_t freq = 0, c0 = 0, c1 = 0;
    ASSERT_EQ(MORL_QueryPerformanceFrequency(&freq), 0);
    EXPECT_EQ(freq, 1000000000);
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
    EXPECT_GE(elapsed, 200u);
    EXPECT_NEAR(static_cast<double>(c1 - c0) / 1e6, static_cast<double>(elapsed), 2.0);

    std::thread named([] {
        ASSERT_EQ(MORL_PthreadSetName("a_rather_long_thread_name"), 0);
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        EXPECT_STREQ(name, "a_rather_long_t");
    });
    named.join();
}

// ---- bounds-checked copies ------------------------------------------------------------------
TEST(SecureC, CopiesRefuseToOverrunAndClearTheDestination) {
    char d[8];
    EXPECT_EQ(memcpy_s(d, sizeof(d), "12345678", 8), 0);
    EXPECT_EQ(std::memcmp(d, "12345678", 8), 0);
    EXPECT_NE(memcpy_s(d, sizeof(d), "123456789", 9), 0);
    EXPECT_EQ(d[0], 0);
    EXPECT_NE(memcpy_s(d, sizeof(d), nullptr, 1), 0);
    EXPECT_NE(memcpy_s(d, static_cast<size_t>(-1), "1", 1), 0); // a negative size cast
    std::memcpy(d, "abcdefgh", 8);
    EXPECT_NE(memcpy_s(d + 1, 7, d, 4), 0); // overlap
    std::memcpy(d, "abcdefgh", 8);
    EXPECT_EQ(memmove_s(d + 1, 7, d, 4), 0);
    EXPECT_EQ(std::memcmp(d, "aabcdfgh", 8), 0);
    EXPECT_NE(memset_s(d, 4, 'x', 5), 0);

    EXPECT_EQ(strcpy_s(d, sizeof(d), "1234567"), 0); // exactly fits
    EXPECT_STREQ(d, "1234567");
    EXPECT_NE(strcpy_s(d, sizeof(d), "12345678"), 0);
    EXPECT_STREQ(d, "");
    EXPECT_EQ(strncpy_s(d, sizeof(d), "123456789", 3), 0);
    EXPECT_STREQ(d, "123");
    EXPECT_NE(strncpy_s(d, sizeof(d), "123456789", 8), 0);
    EXPECT_STREQ(d, "");
}

TEST(SecureC, FormattingFitsOrLeavesTheEmptyText) {
    char d[8];
    EXPECT_EQ(sprintf_s(d, sizeof(d), "%d-%s", 12, "abcd"), 7);
    EXPECT_STREQ(d, "12-abcd");
    EXPECT_EQ(sprintf_s(d, sizeof(d), "%d-%s", 12, "abcde"), -1);
    EXPECT_STREQ(d, "");
    EXPECT_EQ(snprintf_s(d, sizeof(d), 3, "%s", "abcdef"), -1); // cut to count
    EXPECT_STREQ(d, "abc");
    EXPECT_EQ(snprintf_s(d, sizeof(d), 8, "%s", "abcdefgh"), -1);
    EXPECT_STREQ(d, "");
}

} // namespace
