#include "tool_run.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "process.h"
#include "waits.h"

namespace zeph_test {

int ToolRun::code() const { return exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

size_t ToolRun::lines() const { return size_t(std::count(out.begin(), out.end(), '\n')); }

std::string ToolRun::what() const { return "status " + std::to_string(code()) + "\nstdout:\n" + out + "stderr:\n" + err; }

ToolRun run_tool(const std::vector<std::string>& args, int timeout_ms) {
    ToolRun r;
    Process p;
    std::vector<std::string> argv = {tool_path("zeph-nettools")};
    argv.insert(argv.end(), args.begin(), args.end());
    r.started_ms = now_ms();
    if (!p.start(argv)) {
        ADD_FAILURE() << p.error();
        return r;
    }
    const std::string out_file = p.dir().file("stdout");
    off_t last_size = 0;
    r.last_output_ms = r.started_ms;
    for (;;) {
        struct stat st {};
        if (stat(out_file.c_str(), &st) == 0 && st.st_size != last_size) {
            last_size = st.st_size;
            r.last_output_ms = now_ms();
        }
        if ((r.exited = !p.running()) || now_ms() - r.started_ms > uint64_t(timeout_ms)) break;
        usleep(5000);
    }
    r.ended_ms = now_ms();
    r.status = p.stop();
    r.out = p.stdout_text(), r.err = p.stderr_text();
    return r;
}

constexpr int kRefusalRunMs = 5000; // a refused or --help run ends at once

void expect_usage_errors(const std::vector<std::vector<std::string>>& refused) {
    for (const auto& args : refused) {
        const ToolRun r = run_tool(args, kRefusalRunMs);
        std::string cmd;
        for (const auto& a : args) cmd += " " + a;
        EXPECT_TRUE(r.code() == 2 && std::count(r.err.begin(), r.err.end(), '\n') == 1 && r.out.empty())
            << cmd << "\n" << r.what();
    }
}

void expect_help(const std::string& subcommand) {
    const ToolRun r = run_tool({subcommand, "--help"}, kRefusalRunMs);
    EXPECT_TRUE(r.code() == 0 && r.out.rfind("usage: zeph-nettools " + subcommand, 0) == 0u) << subcommand << "\n" << r.what();
}

std::map<std::string, std::string> parse_json_lines(const std::string& text) {
    TempDir dir;
    dir.write("lines", text);
    dir.write("flat.py",
              "import json, sys\n"
              "def flat(n, path, v):\n"
              "    if isinstance(v, dict):\n"
              "        for k in v: flat(n, path + [k], v[k])\n"
              "    elif isinstance(v, list):\n"
              "        for i, x in enumerate(v): flat(n, path + [str(i)], x)\n"
              "    else: print('%d:%s=%s' % (n, '.'.join(path), json.dumps(v)))\n"
              "for n, line in enumerate(open(sys.argv[1])):\n"
              "    flat(n, [], json.loads(line))\n");
    Process py;
    std::map<std::string, std::string> m;
    if (!py.start({"python3", dir.file("flat.py"), dir.file("lines")})) {
        ADD_FAILURE() << py.error();
        return m;
    }
    wait_until([&] { return !py.running(); }, 10000);
    int st = py.stop();
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) {
        ADD_FAILURE() << "not JSON lines:\n" << text << py.stderr_text();
        return m;
    }
    std::istringstream in(py.stdout_text());
    for (std::string line; std::getline(in, line);) {
        auto eq = line.find('=');
        if (eq != std::string::npos) m[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return m;
}

std::string at(const std::map<std::string, std::string>& m, const std::string& key) {
    auto it = m.find(key);
    return it == m.end() ? "<missing " + key + ">" : it->second;
}

} // namespace zeph_test
