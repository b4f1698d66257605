// zeph-nettools: runs the library's port and net detections and a media
// session from the command line, and a demo against peers it starts itself
// on loopback.
//
// Results arrive through callbacks on library threads; they are handed to
// main through an inbox (mutex + condition variable) and printed there.
// main returns as soon as the last expected result is printed: the library's
// detached threads (delayed frees, probe threads) may still run, and its
// process-wide objects are never destroyed, so the process ends cleanly.
#include <cstring>
#include <string>

#include "commands.h"
#include "terminal.h"

namespace {

const char kHelp[] =
    "usage: zeph-nettools <command> [options]\n"
    "\n"
    "commands:\n"
    "  port   which targets can be reached (any-port or three-port detection)\n"
    "  net    delay, loss and quality class of one target or of a server plan\n"
    "  reach  whether up to 16 targets answer, each over its transport and probe\n"
    "  qos    delay, loss and quality class of six servers, five probes each\n"
    "  media  a media session: streams packets to a server, tells what came back\n"
    "  monitor  watches one quality or STUN server for minutes, a report every 10 s\n"
    "  quality  scores up to ten quality servers at once and names the best\n"
    "  fw     firewall detection: which of up to 7 targets can be reached, after 30 s\n"
    "  sites  races up to 32 servers with one burst of probes and names the nearest\n"
    "  demo   runs the detections and a media session against peers on loopback\n"
    "\n"
    "`zeph-nettools <command> --help` tells more; `zeph-nettools --version` the\n"
    "release. Common options: --json (one\n"
    "JSON object per result on stdout), -v / -vv (the library's log lines on\n"
    "stderr, hidden by default).\n"
    "Exit status: 0 done, 1 a detection or session could not start, 2 bad arguments.\n";

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) return cli::usage_error("", "missing command (port, net, qos, media, demo)");
    const std::string cmd = argv[1];
    if (cmd == "-h" || cmd == "--help" || cmd == "help") {
        cli::out(kHelp);
        return cli::kExitOk;
    }
    if (cmd == "--version") {
        cli::out("zeph-nettools " ZEPH_NETTOOLS_VERSION "\n");
        return cli::kExitOk;
    }
    if (cmd == "port") return cli::cmd_port(argc - 2, argv + 2);
    if (cmd == "net") return cli::cmd_net(argc - 2, argv + 2);
    if (cmd == "reach") return cli::cmd_reach(argc - 2, argv + 2);
    if (cmd == "qos") return cli::cmd_qos(argc - 2, argv + 2);
    if (cmd == "media") return cli::cmd_media(argc - 2, argv + 2);
    if (cmd == "monitor") return cli::cmd_monitor(argc - 2, argv + 2);
    if (cmd == "demo") return cli::cmd_demo(argc - 2, argv + 2);
    if (cmd == "fw") return cli::cmd_fw(argc - 2, argv + 2);
    if (cmd == "quality") return cli::cmd_quality(argc - 2, argv + 2);
    if (cmd == "sites") return cli::cmd_sites(argc - 2, argv + 2);
    return cli::usage_error("", "unknown command '" + cmd + "'");
}
