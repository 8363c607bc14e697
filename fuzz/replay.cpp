// SPDX-License-Identifier: MIT
// Runs a fuzz target over the files of a corpus, without a fuzzer: for the ordinary tests.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    if (argc != 2 || std::filesystem::is_empty(argv[1])) {
        return 1;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(file)), {});
        std::printf("%s\n", entry.path().c_str());
        (void)LLVMFuzzerTestOneInput(data.data(), data.size());
    }
}
