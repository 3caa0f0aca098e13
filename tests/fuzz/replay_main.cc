// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A fuzz target without its fuzzer: runs each file that the command line names, and each file of
// each directory, once. The last line before a failure names the input that made it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Paths = std::vector<std::filesystem::path>;

Paths inputs(int argc, char** argv) {
    Paths found;
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i]))
            found.emplace_back(argv[i]);
        else
            for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
                found.push_back(entry.path());
    }
    std::ranges::sort(found);
    return found;
}

bool replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return false;
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const Paths paths = inputs(argc, argv);
    for (const auto& path : paths) {
        if (!replay(path)) {
            std::fprintf(stderr, "%s cannot be read\n", path.c_str());
            return 2;
        }
    }
    std::printf("%zu inputs replayed\n", paths.size());
    return paths.empty() ? 2 : 0;
}
