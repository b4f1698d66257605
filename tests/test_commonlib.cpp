// The common library: log lines and sinks, addresses, host settings and the
// HTTP CONNECT client, against real tinyproxy and scripted proxies.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "peers.h"
#include "zeph_nettools/settings.h"

using namespace zeph_test;

namespace {

// Every test leaves the process-wide settings as it found them.
class Common : public ::testing::Test {
protected:
    void TearDown() override {
        zeph_settings_set_log_sink(nullptr, nullptr, ZEPH_LOG_WARNING);
        zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr);
        zeph_settings_set_local_addr(nullptr);
    }
};

// Counts lines and the ones that reached this sink with another sink's user.
struct SinkUser {
    char tag;
    std::atomic<int> lines{0}, mismatches{0};
};
template <char Tag>
void tagged_sink(void* user, int, const char*, const char*, const char*, int, const char* msg) {
    auto* u = static_cast<SinkUser*>(user);
    u->lines++;
    if (u->tag != Tag || msg[0] != 'm') u->mismatches++;
}

// What zeph_http_proxy_connect_ex sends for 127.0.0.1:9000 without credentials.
const std::string kRequest = "CONNECT 127.0.0.1:9000 HTTP/1.1\r\nHost: 127.0.0.1:9000\r\n\r\n";

// One accepted connection where the test plays the proxy while the connect runs on another thread.
struct ScriptedProxy {
    TcpListener listener;
    int client = tcp_connect("127.0.0.1", listener.port());
    std::future<int> result;

    explicit ScriptedProxy(bool nonblocking = false) {
        if (nonblocking) fcntl(client, F_SETFL, fcntl(client, F_GETFL, 0) | O_NONBLOCK);
        result = std::async(std::launch::async,
                            [this] { return zeph_http_proxy_connect_ex(0, client, "127.0.0.1", 9000); });
        listener.wait_accepts(1, 2000);
    }
    ~ScriptedProxy() {
        if (result.valid()) result.wait();
        close(client);
    }
    std::string request() { return recv_exact(listener.connection_fd(0), kRequest.size(), 3000); }
    bool answer(const std::string& text) { return send_all(listener.connection_fd(0), text.data(), text.size()); }
};

} // namespace

TEST(CommonLog, FunctionNamesFromCompilerSignatures) {
    const char* table[][2] = {
        {"std::map<int, std::vector<int> > Ns::Cls::get(int) const", "Ns::Cls::get"},
        {"const char *zeph_log_func_name(const char *, char *, size_t)", "zeph_log_func_name"},
        {"PortDetect::start(uint32_t, std::shared_ptr<PortDetect>)::<lambda()>", "PortDetect::start"},
        {"auto PortDetect::start(uint32_t)::(anonymous class)::operator()() const", "PortDetect::start"},
        {"void Ring<T>::put(const T&) [with T = int]", "Ring::put"},
        {"void {anonymous}::helper(int)", "helper"},
        {"void (anonymous namespace)::helper(int)", "helper"},
        {"bool Addr::operator<(const Addr&) const", "Addr::operator<"},
        {"void Cb::operator()(int)", "Cb::operator()"},
    };
    for (const auto& row : table) {
        char buf[128];
        EXPECT_STREQ(zeph_log_func_name(row[0], buf, sizeof buf), row[1]) << row[0];
    }
    // A short buffer is cut, never overrun.
    char small[5];
    EXPECT_STREQ(zeph_log_func_name("void PortDetect::start()", small, sizeof small), "Port");
    EXPECT_STREQ(zeph_log_func_name(nullptr, small, sizeof small), "");
}

TEST_F(Common, SinkGetsTheWholeRecordAndOnlyItsLevels) {
    {
        LogCapture cap(ZEPH_LOG_INFO);
        EXPECT_FALSE(zeph_log_enabled(ZEPH_LOG_DEBUG));
        const int line = __LINE__ + 1;
        NT_LOGI("probe %s:%u answered", "127.0.0.1", 443u);
        NT_LOGD("not delivered at level info");
        std::vector<LogLine> lines = cap.lines();
        ASSERT_EQ(lines.size(), 1u) << cap.dump();
        const LogLine& l = lines[0];
        EXPECT_EQ(std::to_string(l.level) + " " + l.module + " " + l.function + " " + l.file + ":" +
                      std::to_string(l.line) + " " + l.message,
                  std::to_string(ZEPH_LOG_INFO) + " support Common_SinkGetsTheWholeRecordAndOnlyItsLevels_Test::TestBody" +
                      " tests/test_commonlib.cpp:" + std::to_string(line) + " probe 127.0.0.1:443 answered");

        // An overlong line is cut to a bounded size, not dropped.
        std::string big(20000, 'x');
        DoLog("support", 0, 0, "f", "tests/x.cpp", 1, "%s", big.c_str());
        lines = cap.lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_TRUE(lines[1].message.size() > 1000u && lines[1].message.size() < big.size()) << lines[1].message.size();
    }
    // Back to the default: warnings and errors only, on stderr.
    EXPECT_FALSE(zeph_log_enabled(ZEPH_LOG_INFO));
    testing::internal::CaptureStderr();
    DoLog("support", 1, 0, "NetDetect::start", "support/nettools/netdetect/net_detect.cpp", 123, "lost %d", 7);
    DoLog("support", 2, 0, "NetDetect::start", "support/nettools/netdetect/net_detect.cpp", 124, "quiet");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[W] support NetDetect::start support/nettools/netdetect/net_detect.cpp:123: lost 7\n");
}

// Threads log while the host swaps sinks: each line reaches a sink with that sink's own user.
TEST_F(Common, SinkSwapWhileThreadsLog) {
    static SinkUser a{'a'}, b{'b'}; // outlive any late line
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 3; ++t)
        loggers.emplace_back([&] {
            while (!stop.load()) NT_LOGE("message");
        });
    // Keep swapping until the loggers have run through many swaps.
    const uint64_t deadline = now_ms() + 5000;
    for (int i = 0; (i < 2000 || a.lines + b.lines < 2000) && now_ms() < deadline; ++i)
        zeph_settings_set_log_sink(i % 2 ? tagged_sink<'a'> : tagged_sink<'b'>, i % 2 ? &a : &b, ZEPH_LOG_DEBUG);
    stop = true;
    for (auto& th : loggers) th.join();
    EXPECT_GE(a.lines + b.lines, 2000);
    EXPECT_EQ(a.mismatches + b.mismatches, 0);
}

TEST_F(Common, AddressesAndSettingsRefuseBadValues) {
    EXPECT_TRUE(get_addr_ipv4("127.0.0.1") == 0x0100007Fu && get_addr_ipv4("localhost") == 0x0100007Fu);
    EXPECT_TRUE(get_addr_ipv4(nullptr) == 0u && get_addr_ipv4("no.such.host.invalid") == 0u);

    const uint32_t automatic = zeph_get_local_addr();
    EXPECT_NE(automatic, 0u);
    ASSERT_EQ(zeph_settings_set_local_addr("127.0.0.9"), 0);
    EXPECT_EQ(zeph_settings_set_local_addr("localhost"), -1); // names are not addresses here
    EXPECT_EQ(zeph_get_local_addr(), ipv4_be("127.0.0.9"));
    EXPECT_TRUE(zeph_settings_set_local_addr("") == 0 && zeph_get_local_addr() == automatic);

    EXPECT_EQ(zeph_is_proxy_configed(), 0u);
    ASSERT_EQ(zeph_settings_set_http_proxy("localhost", 3128, "user", "pass"), 0);
    // Each bad setting is refused and the previous proxy stays.
    const std::string long_secret(256, 's');
    const struct {
        const char *host, *user, *pass;
        uint16_t port;
    } bad[] = {{"no.such.host.invalid", nullptr, nullptr, 8080}, {"127.0.0.2", nullptr, nullptr, 0},
               {"127.0.0.2", nullptr, "secret", 8080},          {"127.0.0.2", "a:b", "secret", 8080},
               {"127.0.0.1\r\n", nullptr, nullptr, 8080},       {"127.0.0.1", "zeph\r\nX: 1", "pw", 8080},
               {"127.0.0.1", "zeph", "pw\n", 8080},              {"127.0.0.1", "zeph", long_secret.c_str(), 8080}};
    for (const auto& b : bad) EXPECT_EQ(zeph_settings_set_http_proxy(b.host, b.port, b.user, b.pass), -1) << b.host;
    EXPECT_TRUE(zeph_get_proxy_addr() == 0x0100007Fu && zeph_get_proxy_port() == 3128);
    // Blanks and non-ASCII bytes are fine in a password: it travels encoded.
    EXPECT_EQ(zeph_settings_set_http_proxy("127.0.0.1", 3128, "zeph", "pass word \xc3\xa9"), 0);
    EXPECT_TRUE(zeph_settings_set_http_proxy("", 0, nullptr, nullptr) == 0 && zeph_is_proxy_configed() == 0u);
}

// An answer in pieces leaves the tunnel's first byte on the socket. Refused: a cut answer,
// not HTTP, a fake 200, an endless header (no unbounded buffer), silence for 3 s.
TEST_F(Common, ConnectReadsTheProxyAnswerAndRefusesOthersAndBadText) {
    {
        ScriptedProxy p(/*nonblocking=*/true);
        EXPECT_EQ(p.request(), kRequest);
        for (const char* piece : {"HTT", "P/1.0 200 OK\r", "\n\r", "\nX"}) {
            ASSERT_TRUE(p.answer(piece));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        EXPECT_EQ(p.result.get(), 0);
        EXPECT_EQ(recv_exact(p.client, 1, 1000), "X");
    }
    const std::pair<std::string, int> cases[] = {
        {"HTTP/1.1 200 OK\r\n", -1},
        {"SSH-2.0-OpenSSH_9.2\r\n\r\n", -2},
        {"HTTP/1.1 2OO OK\r\n\r\n", -2},
        {"HTTP/1.1 200 OK\r\n" + std::string(20000, 'h'), -2},
    };
    for (const auto& c : cases) {
        ScriptedProxy p;
        EXPECT_EQ(p.request(), kRequest);
        ASSERT_TRUE(p.answer(c.first));
        p.listener.close_connections();
        EXPECT_EQ(p.result.get(), c.second) << c.first.substr(0, 30);
    }
    const uint64_t t0 = now_ms();
    ScriptedProxy p;
    EXPECT_EQ(p.result.get(), -1);
    EXPECT_TRUE(now_ms() - t0 >= 2900u && now_ms() - t0 < 4500u) << now_ms() - t0;

    // Text that could end the CONNECT line or add a header is refused before anything is sent.
    const std::string too_long(254, 'a');
    const char* bad_hosts[] = {"evil.example\r\nX-Injected: 1", "a b", "host:80", "a/b", too_long.c_str(), "\x01host"};
    TcpListener proxy(TcpListener::Mode::Sink);
    const int client = tcp_connect("127.0.0.1", proxy.port());
    ASSERT_TRUE(proxy.ok() && client >= 0);
    for (const char* host : bad_hosts) {
        EXPECT_EQ(zeph_http_proxy_connect_ex(0, client, host, 9000), -3) << host;
        EXPECT_EQ(get_addr_ipv4(host), 0u) << host;
    }
    EXPECT_FALSE(proxy.wait_received(1, 100)) << proxy.received();
    close(client);

    // A domain for the media connect goes to the proxy as it is: refused first.
    ASSERT_EQ(zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), nullptr, nullptr), 0);
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    int is_domain = 0;
    EXPECT_EQ(zeph_tcp_over_http_proxy(s, 0, 443, "media.example\r\nHost: elsewhere", &is_domain), -3);
    close(s);
    EXPECT_FALSE(proxy.wait_accepts(2, 100)) << "a connection was opened for a refused domain";
}

// The media socket's connect: direct, else through tinyproxy with Basic auth (CONNECT to echo only).
TEST_F(Common, TcpConnectDirectAndThroughTinyproxy) {
    TcpListener echo(TcpListener::Mode::Echo);
    TinyProxy proxy;
    ASSERT_TRUE(proxy.start({echo.port()}, "zeph", "s3cret"));
    LogCapture cap;
    int s = -1, is_domain = -1;
    auto dial = [&](uint16_t port, const char* name = nullptr) {
        if (s >= 0) close(s);
        s = socket(AF_INET, SOCK_STREAM, 0);
        return zeph_tcp_over_http_proxy(s, name ? 0 : ipv4_be("127.0.0.1"), port, name, &is_domain);
    };
    auto use_proxy = [](uint16_t port, const char* user, const char* pass) {
        ASSERT_EQ(zeph_settings_set_http_proxy("127.0.0.1", port, user, pass), 0);
    };
    // Without a proxy a name is resolved here.
    ASSERT_EQ(dial(echo.port(), "localhost"), 0);
    EXPECT_TRUE(is_domain == 1 && (fcntl(s, F_GETFL, 0) & O_NONBLOCK) && echo.wait_accepts(1, 2000)) << is_domain;
    EXPECT_NE(dial(echo.port(), "no.such.host.invalid"), 0);

    use_proxy(proxy.port(), nullptr, nullptr);
    EXPECT_EQ(dial(echo.port()), 16) << "407 reads as 16";
    use_proxy(proxy.port(), "zeph", "n0tit");
    EXPECT_EQ(dial(echo.port()), 401);
    use_proxy(proxy.port(), "zeph", "s3cret");
    EXPECT_EQ(dial(closed_tcp_port()), 403);
    EXPECT_EQ(dial(echo.port(), "localhost"), 0); // the name goes to the proxy as it is
    ASSERT_EQ(dial(echo.port()), 0) << proxy.log_text();
    const std::string payload = "media bytes \x01\x02\x03 through the tunnel";
    ASSERT_TRUE(send_all(s, payload.data(), payload.size()));
    EXPECT_EQ(recv_exact(s, payload.size(), 2000), payload);

    // The asynchronous form connects and reports on a thread of its own.
    static std::atomic<int> async_result{1000};
    close(s);
    s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(zeph_http_proxy_connect_asyn(s, "127.0.0.1", echo.port(), [](MORL_SOCKET, int r) { async_result = r; }),
              0);
    EXPECT_TRUE(wait_until([] { return async_result.load() == 0; }, 4000)) << async_result.load();

    use_proxy(closed_tcp_port(), nullptr, nullptr); // fails at once
    const uint64_t t0 = now_ms();
    EXPECT_NE(dial(echo.port()), 0);
    EXPECT_LT(now_ms() - t0, 1000u);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAECONNREFUSED) << "the connect's own error, not the wait's";
    close(s);
    // No password in the log, plain or encoded ("zeph:s3cret").
    EXPECT_FALSE(cap.contains("s3cret") || cap.contains("n0tit") || cap.contains("emVwaDpzM2NyZXQ")) << cap.dump();
}
