// Replays a fuzz corpus (a folder of inputs, or single files) through the
// target's LLVMFuzzerTestOneInput, so that every input found once stays a
// regression test without a fuzzing toolchain.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int run_file(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return 1;
}

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path p(argv[i]);
        if (std::filesystem::is_directory(p)) {
            for (auto& e : std::filesystem::recursive_directory_iterator(p))
                if (e.is_regular_file()) count += run_file(e.path());
        } else if (std::filesystem::exists(p)) {
            count += run_file(p);
        }
    }
    // Always exercise the empty input.
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::printf("replayed %d inputs\n", count + 1);
    return 0;
}
