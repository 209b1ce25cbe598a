// SPDX-License-Identifier: Apache-2.0
//
//     fuzz-TARGET [--mutations NUMBER] [--seed NUMBER] DIRECTORY...
//
// The main program of a target without libFuzzer: tries each file, then random changes of them. The same seed
// makes the same changes.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Random = std::mt19937_64;

void tryOne(const std::string& bytes) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string changed(Random& random, const std::vector<std::string>& corpus) {
    std::string bytes = corpus[random() % corpus.size()];
    for (size_t changes = 1 + random() % 4; changes > 0; --changes) {
        const size_t at = random() % (bytes.size() + 1);
        const size_t length = 1 + random() % 8;
        const std::string& other = corpus[random() % corpus.size()];
        switch (random() % 5) {
            case 0:
                if (at < bytes.size()) bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
                break;
            case 1:
                if (at < bytes.size()) bytes[at] = static_cast<char>(random());
                break;
            case 2:
                bytes.erase(at, length);
                break;
            case 3:
                bytes.insert(at, bytes.substr(random() % (bytes.size() + 1), length));
                break;
            default:
                bytes.insert(at, other.substr(random() % (other.size() + 1), length));
        }
    }
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    uint64_t mutations = 0;
    uint64_t seed = 1;
    std::vector<std::string> corpus;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if ((argument == "--mutations" || argument == "--seed") && i + 1 < argc) {
            (argument == "--seed" ? seed : mutations) = std::strtoull(argv[++i], nullptr, 10);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argument)) {
            std::ifstream file(entry.path(), std::ios::binary);
            corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        }
    }
    std::sort(corpus.begin(), corpus.end());
    if (corpus.empty()) {
        std::fprintf(stderr, "no corpus\n");
        return 2;
    }
    for (const std::string& bytes : corpus)
        tryOne(bytes);
    Random random(seed);
    for (uint64_t i = 0; i < mutations; ++i)
        tryOne(changed(random, corpus));
    std::printf("%zu files and %llu changes of them\n", corpus.size(),
                static_cast<unsigned long long>(mutations));
}
