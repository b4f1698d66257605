// zeph-media-peer: the media echo/sink server as a program.
//
//   zeph-media-peer [--listen IP:PORT] [--mode echo|sink]
//
// Prints the port it listens on as the first line of stdout, then serves
// until SIGTERM or SIGINT.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "media_peer.h"

namespace {

const char kUsage[] =
    "usage: zeph-media-peer [--listen IP:PORT] [--mode echo|sink]\n"
    "\n"
    "A media server for the 16-byte private framing: echoes every framed packet\n"
    "back on its connection (echo, the default) or swallows it (sink). Prints the\n"
    "port it listens on (127.0.0.1 and a free port unless --listen says) as the\n"
    "first line, then serves until SIGTERM or SIGINT and prints its counts.\n";

int Usage()
{
    std::fputs(kUsage, stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::string ip = "127.0.0.1";
    uint16_t port = 0;
    auto mode = zeph_peers::MediaPeerMode::Echo;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--version") {
            std::puts("zeph-media-peer " ZEPH_NETTOOLS_VERSION);
            return 0;
        }
        if (arg == "--listen" && i + 1 < argc) {
            if (!zeph_peers::ParseListenAddress(argv[++i], ip, port)) return Usage();
        } else if (arg == "--mode" && i + 1 < argc) {
            std::string m = argv[++i];
            if (m == "echo") {
                mode = zeph_peers::MediaPeerMode::Echo;
            } else if (m == "sink") {
                mode = zeph_peers::MediaPeerMode::Sink;
            } else {
                return Usage();
            }
        } else {
            return Usage();
        }
    }

    // Block the stop signals before any thread starts, so that only
    // sigwait below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    zeph_peers::MediaPeer peer(mode);
    std::string error;
    if (!peer.start(ip, port, &error)) {
        std::fprintf(stderr, "zeph-media-peer: %s\n", error.c_str());
        return 1;
    }
    std::printf("%u\n", unsigned(peer.port()));
    std::fflush(stdout);

    int sig = 0;
    sigwait(&stopSignals, &sig);
    peer.stop();
    std::fprintf(stderr, "zeph-media-peer: accepted %llu, packets %llu, bytes %llu, stun %llu\n",
                 (unsigned long long)peer.accepted(), (unsigned long long)peer.totalPackets(),
                 (unsigned long long)peer.bytes(), (unsigned long long)peer.stunRequests());
    return 0;
}
