// The subcommands of zeph-nettools. Each takes the arguments after its name
// and returns the process exit code (see cli::ExitCode).
#pragma once

namespace cli {

int cmd_port(int argc, char** argv);
int cmd_net(int argc, char** argv);
int cmd_demo(int argc, char** argv);
int cmd_media(int argc, char** argv);
int cmd_reach(int argc, char** argv);
int cmd_monitor(int argc, char** argv);
int cmd_qos(int argc, char** argv);
int cmd_fw(int argc, char** argv);
int cmd_quality(int argc, char** argv);
int cmd_sites(int argc, char** argv);

} // namespace cli
