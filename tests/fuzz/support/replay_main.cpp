// Replaces libFuzzer where it is missing: runs a target once with each file on the command line and
// in its folders.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

// NOLINTNEXTLINE(readability-redundant-declaration): defined in a file without a header
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesAt(const fs::path& place) {
    if (!fs::is_directory(place)) {
        return {place};
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(place)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::ranges::sort(files);
    return files;
}

void replay(const fs::path& file) {
    // Printed before the run, so that an input that ends the process is the last one printed.
    std::fprintf(stderr, "%s\n", file.c_str());
    std::ifstream in(file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    // In a buffer of exactly this size, so that a sanitizer detects a read after its end.
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> files;
    for (const char* const place : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
        std::ranges::copy(filesAt(place), std::back_inserter(files));
    }
    std::ranges::for_each(files, replay);
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::fprintf(stderr, "%zu inputs replayed\n", files.size());
    // A missing corpus is a failure.
    return files.empty() ? 1 : 0;
}
