// SPDX-License-Identifier: Apache-2.0
#include "access/file_extensions.h"

#include <fcntl.h>
#include <sys/random.h>

#include <array>
#include <climits>

namespace telvora {

namespace {

constexpr size_t kTokenBytes = 32;

// Empty when the kernel gives no random numbers.
std::string randomToken() {
    std::array<unsigned char, kTokenBytes> bytes;
    // Up to 256 bytes come whole once the generator is seeded, getrandom(2).
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return {};
    constexpr char kDigits[] = "0123456789abcdef";
    std::string token;
    token.reserve(2 * kTokenBytes);
    for (const unsigned char byte : bytes) {
        token.push_back(kDigits[byte >> 4]);
        token.push_back(kDigits[byte & 15]);
    }
    return token;
}

bool isOpenForReading(int file) {
    const int flags = fcntl(file, F_GETFL);
    if (flags < 0 || (flags & O_PATH) != 0) return false;
    return (flags & O_ACCMODE) == O_RDONLY || (flags & O_ACCMODE) == O_RDWR;
}

tl::unexpected<std::string> extensionRefusal(const char* reason) {
    return tl::unexpected(std::string(reason));
}

}  // namespace

tl::expected<std::string, std::string> FileExtensions::issue(std::string path, UniqueFd file,
                                                             QuotaCharge place) {
    if (path.empty() || path.size() > PATH_MAX) return extensionRefusal("The path is empty or too long");
    if (!isOpenForReading(file.get())) return extensionRefusal("The file is not open for reading");
    if (extensions_.size() >= kMaxTokens) return extensionRefusal("Too many extensions are unused");
    std::string token = randomToken();
    if (token.empty()) return extensionRefusal("No extension can be made");
    extensions_[token] = {std::move(path), std::move(file), std::move(place)};
    return token;
}

UniqueFd FileExtensions::consume(const std::string& token, const std::string& path) {
    const auto at = extensions_.find(token);
    if (at == extensions_.end() || at->second.path != path) return {};
    UniqueFd file = std::move(at->second.file);
    extensions_.erase(at);
    return file;
}

}  // namespace telvora
