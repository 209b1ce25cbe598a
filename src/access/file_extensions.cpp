// SPDX-License-Identifier: Apache-2.0
#include "access/file_extensions.h"

#include <fcntl.h>
#include <sys/random.h>

#include <array>
#include <climits>

#include "util/hexadecimal.h"

namespace telvora {

namespace {

constexpr size_t kTokenBytes = 32;

// Empty if the kernel gives no random numbers.
std::string randomToken() {
    std::array<char, kTokenBytes> bytes;
    // Once the generator is seeded, up to 256 bytes arrive whole, getrandom(2).
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return {};
    return hexText({bytes.data(), bytes.size()});
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
                                                             QuotaCharge charge) {
    if (path.empty() || path.size() > PATH_MAX) return extensionRefusal("The path is empty or too long");
    if (!isOpenForReading(file.get())) return extensionRefusal("The file is not open for reading");
    if (extensions_.size() >= kMaxTokens) return extensionRefusal("Too many extensions are unused");
    std::string token = randomToken();
    if (token.empty()) return extensionRefusal("No extension can be made");
    extensions_[token] = {std::move(path), std::move(file), std::move(charge)};
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
