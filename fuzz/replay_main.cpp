// Replays a fuzz corpus (a folder of inputs, or single files) through the
// target's LLVMFuzzerTestOneInput, so that every input found once stays a
// regression test without a fuzzing toolchain.
//
//   <target>_replay [--verdicts FILE] INPUT...
//
// With --verdicts, FILE lists what each input must come to, one line per
// input: its name (the path below the folder given), blanks, then the
// verdict exactly as FuzzVerdict() words it; blank lines and lines that
// begin with '#' are skipped. Every input must have a line and every line
// an input, so that a new input cannot slip in without saying what it
// means: the replay fails and prints the line to review and add. Without
// --verdicts each input's verdict is only printed.
//
// Runs on the main thread only.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_verdict.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

namespace {

constexpr int kExitMismatch = 1;
constexpr int kExitUsage = 2;

struct Input {
    std::string name;
    fs::path path;
};

std::string Trim(const std::string& s)
{
    const char* blanks = " \t\r";
    const size_t first = s.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

// name -> verdict; false (with the reason printed) when the file is unusable.
bool ReadVerdicts(const fs::path& file, std::map<std::string, std::string>& out)
{
    std::ifstream in(file);
    if (!in) {
        std::fprintf(stderr, "cannot read verdicts %s\n", file.c_str());
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        line = Trim(line);
        if (line.empty() || line[0] == '#') continue;
        const size_t gap = line.find_first_of(" \t");
        const std::string name = line.substr(0, gap);
        const std::string verdict = gap == std::string::npos ? "" : Trim(line.substr(gap));
        if (verdict.empty() || !out.emplace(name, verdict).second) {
            std::fprintf(stderr, "%s:%d: %s\n", file.c_str(), number,
                         verdict.empty() ? "a name without a verdict" : "a second verdict for one input");
            return false;
        }
    }
    return true;
}

std::string Run(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return FuzzVerdict();
}

} // namespace

int main(int argc, char** argv)
{
    fs::path verdictFile;
    std::vector<Input> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--verdicts" && i + 1 < argc) {
            verdictFile = argv[++i];
            continue;
        }
        const fs::path p(arg);
        if (fs::is_directory(p)) {
            for (const auto& e : fs::recursive_directory_iterator(p))
                if (e.is_regular_file()) inputs.push_back({fs::relative(e.path(), p).string(), e.path()});
        } else if (fs::is_regular_file(p)) {
            inputs.push_back({p.filename().string(), p});
        } else {
            std::fprintf(stderr, "no such input: %s\n", arg.c_str());
            return kExitUsage;
        }
    }
    std::sort(inputs.begin(), inputs.end(), [](const Input& a, const Input& b) { return a.name < b.name; });

    std::map<std::string, std::string> expected;
    const bool checking = !verdictFile.empty();
    if (checking && !ReadVerdicts(verdictFile, expected)) return kExitUsage;

    int failures = 0;
    for (const auto& input : inputs) {
        const std::string verdict = Run(input.path);
        if (!checking) {
            std::printf("%s %s\n", input.name.c_str(), verdict.c_str());
            continue;
        }
        const auto it = expected.find(input.name);
        if (it == expected.end()) {
            std::fprintf(stderr, "%s has no verdict; once its outcome is understood, add to %s:\n%s %s\n",
                         input.name.c_str(), verdictFile.c_str(), input.name.c_str(), verdict.c_str());
            ++failures;
            continue;
        }
        if (it->second != verdict) {
            std::fprintf(stderr, "%s: expected \"%s\", got \"%s\"\n", input.name.c_str(), it->second.c_str(),
                         verdict.c_str());
            ++failures;
        }
        expected.erase(it);
    }
    for (const auto& [name, verdict] : expected) {
        std::fprintf(stderr, "%s: a verdict (\"%s\") for an input that is not there\n", name.c_str(), verdict.c_str());
        ++failures;
    }
    // Always exercise the empty input too.
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::printf("replayed %zu inputs and the empty one, %d failed\n", inputs.size(), failures);
    return failures == 0 ? 0 : kExitMismatch;
}
