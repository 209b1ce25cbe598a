// SPDX-License-Identifier: Apache-2.0
#include "util/directory_names.h"

#include <dirent.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string_view>

namespace telvora {

tl::expected<std::vector<std::string>, int> namesIn(const std::filesystem::path& directory) {
    const auto close = [](DIR* open) { closedir(open); };
    const std::unique_ptr<DIR, decltype(close)> open(opendir(directory.c_str()), close);
    if (!open && errno == ENOMEM) throw std::bad_alloc();
    if (!open) return tl::unexpected(errno);
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(open.get());
        if (entry == nullptr && errno != 0) return tl::unexpected(errno);
        if (entry == nullptr) return names;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
}

}  // namespace telvora
