// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <tl/expected.hpp>

namespace telvora {

// A shared object that is loaded at run time (dlopen(3)). Its code stays in memory until the process ends,
// even without a PlugIn, because its threads may still run it. Thread-safe.
class PlugIn {
  public:
    // Loads the object at an absolute path and runs its initialisers, unless it is loaded already. Fails with
    // a reason. Blocks on file I/O.
    static tl::expected<PlugIn, std::string> load(const std::string& path);

    // The address of an exported symbol, or null.
    const void* symbol(const char* name) const;

  private:
    struct Close {
        void operator()(void* handle) const;
    };

    explicit PlugIn(void* handle) : handle_(handle) {}

    std::unique_ptr<void, Close> handle_;
};

}  // namespace telvora
