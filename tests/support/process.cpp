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
#include <sstream>

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
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}


bool Process::start(const std::vector<std::string>& argv) {
    stop();
    error_.clear();
    if (argv.empty() || !dir_.ok()) return fail(&error_, "cannot start a process: no program or no temporary folder");
    // The child dies with this process, so that an aborted test leaves no
    // server holding its fixed port: setpriv sets that, then becomes the program.
    static const std::vector<std::string> kDieWithParent = {"/usr/bin/setpriv", "--pdeathsig", "KILL", "--"};
    std::vector<char*> args;
    if (::access(kDieWithParent[0].c_str(), X_OK) == 0) {
        for (const std::string& a : kDieWithParent) args.push_back(const_cast<char*>(a.c_str()));
    }
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    std::string out = dir_.file("stdout"), err = dir_.file("stderr");
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return fail(&error_, "cannot start " + argv[0] + ": " + std::strerror(rc));
    pid_ = pid;
    status_ = -1;
    return true;
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
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms);
    while (running()) {
        if (now_ms() >= deadline) {
            kill(pid_, SIGKILL);
            int st = 0;
            while (waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
            }
            status_ = st;
            pid_ = -1;
            break;
        }
        sleep_ms(2);
    }
    return status_;
}


} // namespace zeph_test
