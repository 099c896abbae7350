// Stands in for libFuzzer's driver where there is none (gcc, the test build): runs the target
// once on every file named, or on every file of every directory named, in name order. Each run
// is one input as the fuzzer would hand it over, so the sanitizers see exactly what they saw.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fs = std::filesystem;

namespace {

bool replay(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A copy of exactly the input's size: a read one past the end is caught, as under libFuzzer.
    auto* data = new std::uint8_t[bytes.size()];
    std::copy(bytes.begin(), bytes.end(), data);
    LLVMFuzzerTestOneInput(data, bytes.size());
    delete[] data;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        fs::path arg = argv[i];
        std::error_code ec;
        if (fs::is_regular_file(arg, ec)) {
            if (!replay(arg)) return 2;
            ++count;
            continue;
        }
        if (!fs::is_directory(arg, ec)) {
            std::fprintf(stderr, "no such file or directory: %s\n", argv[i]);
            return 2;
        }
        std::vector<fs::path> files;
        for (const auto& e : fs::directory_iterator(arg)) {
            // Dot files (.gitkeep) hold a folder in place; they are no inputs.
            if (e.is_regular_file() && e.path().filename().string()[0] != '.')
                files.push_back(e.path());
        }
        std::sort(files.begin(), files.end());
        for (const auto& f : files) {
            if (!replay(f)) return 2;
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return 0;
}
