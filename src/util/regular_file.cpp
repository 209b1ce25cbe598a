// SPDX-License-Identifier: Apache-2.0
#include "util/regular_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "util/error_text.h"

namespace telvora {

tl::expected<RegularFile, std::string> RegularFile::open(const std::filesystem::path& path) {
    // Without O_NONBLOCK the call would wait for the writer of a FIFO.
    RegularFile file{UniqueFd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC))};
    if (!file.fd || fstat(file.fd.get(), &file.status) != 0) {
        return tl::make_unexpected(errorText("can't be opened", errno));
    }
    if (!S_ISREG(file.status.st_mode)) return tl::make_unexpected(kNotRegular);
    return file;
}

// Files of procfs and sysfs have no size: the end of the file is where read(2) finds it.
tl::expected<std::string, std::string> RegularFile::read(size_t limit) const {
    constexpr size_t kBlock = size_t{16} << 10;
    std::string content;
    for (size_t length = 0;;) {
        content.resize(std::min(limit, length + kBlock));
        const ssize_t count = ::read(fd.get(), content.data() + length, content.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return tl::make_unexpected(errorText("can't be read", errno));
        length += static_cast<size_t>(count);
        if (count > 0 && length < limit) continue;
        content.resize(length);
        return content;
    }
}

tl::expected<std::string, std::string> readRegularFile(const std::filesystem::path& path, size_t limit) {
    return RegularFile::open(path).and_then([limit](const RegularFile& file) { return file.read(limit); });
}

}  // namespace telvora
