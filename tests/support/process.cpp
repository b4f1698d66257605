#include "process.h"

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "waits.h"

namespace zeph_test {

namespace {

bool fail(std::string* error, const std::string& what) {
    *error = what;
    std::fprintf(stderr, "zeph_test: %s\n", what.c_str());
    return false;
}

} // namespace

std::string tool_path(const std::string& name) { return std::string(ZEPH_TOOLS_BIN_DIR) + "/" + name; }


TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/zeph_test.XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
}

TempDir::~TempDir() {
    if (path_.empty()) return;
    nftw(
        path_.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

bool TempDir::write(const std::string& name, const std::string& text) const {
    std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string TempDir::read(const std::string& name) const {
    std::ifstream in(file(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}


bool Process::start(const std::vector<std::string>& argv) {
    stop();
    error_.clear();
    if (argv.empty() || !dir_.ok()) return fail(&error_, "cannot start a process: no program or no temporary folder");
    // setpriv makes the child die with us (no server of an aborted test keeps its port), then execs it.
    static const std::vector<std::string> kDieWithParent = {"/usr/bin/setpriv", "--pdeathsig", "KILL", "--"};
    std::vector<char*> args;
    if (::access(kDieWithParent[0].c_str(), X_OK) == 0)
        for (const std::string& a : kDieWithParent) args.push_back(const_cast<char*>(a.c_str()));
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    std::string out = dir_.file("stdout"), err = dir_.file("stderr");
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int rc = posix_spawnp(&pid_, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    status_ = -1;
    if (rc != 0) pid_ = -1;
    return rc == 0 || fail(&error_, "cannot start " + argv[0] + ": " + std::strerror(rc));
}

bool Process::running() {
    if (pid_ <= 0) return false;
    int st = 0;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_ || (r < 0 && errno == ECHILD)) {
        status_ = r == pid_ ? st : -1;
        pid_ = -1;
        return false;
    }
    return true;
}

int Process::stop(int timeout_ms) {
    if (!running()) return status_;
    kill(pid_, SIGTERM);
    if (!wait_until([&] { return !running(); }, timeout_ms)) {
        kill(pid_, SIGKILL);
        int st = 0;
        while (waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
        }
        status_ = st, pid_ = -1;
    }
    return status_;
}


} // namespace zeph_test
