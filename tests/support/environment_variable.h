// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace telvora::test {

// Sets (or, with null, unsets) an environment variable for a scope. Not while other threads run.
class EnvironmentVariable {
  public:
    EnvironmentVariable(const char* name, const char* value) : name_(name) {
        if (const char* before = getenv(name)) before_ = before;
        assign(value);
    }
    ~EnvironmentVariable() { assign(before_ ? before_->c_str() : nullptr); }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  private:
    void assign(const char* value) { value != nullptr ? setenv(name_, value, 1) : unsetenv(name_); }

    const char* name_;
    std::optional<std::string> before_;
};

}  // namespace telvora::test
