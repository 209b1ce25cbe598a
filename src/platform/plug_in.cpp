// SPDX-License-Identifier: Apache-2.0
#include "platform/plug_in.h"

#include <dlfcn.h>

namespace telvora {

void PlugIn::Close::operator()(void* handle) const {
    dlclose(handle);
}

tl::expected<PlugIn, std::string> PlugIn::load(const std::string& path) {
    // Without a slash dlopen(3) would search its own directories.
    if (!path.starts_with('/')) return tl::unexpected("the path is not absolute: " + path);
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        const char* reason = dlerror();
        return tl::unexpected(std::string(reason != nullptr ? reason : "unknown reason"));
    }
    return PlugIn(handle);
}

const void* PlugIn::symbol(const char* name) const {
    return dlsym(handle_.get(), name);
}

}  // namespace telvora
