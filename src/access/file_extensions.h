// SPDX-License-Identifier: Apache-2.0
//
// FileExtensions: the sandbox extensions of one connection. A client passes an open descriptor and gets a
// token; the token and the same path give the descriptor back. Having the file open proves that the client
// can read it, and the path is not resolved again.
//
// A token is 256 random bits, known only to the store of its connection, and can be used once. The store
// belongs to the strand of its connection. Destruction closes the remaining descriptors.
#pragma once

#include <cstddef>
#include <string>
#include <tl/expected.hpp>
#include <unordered_map>

#include "access/user_quotas.h"
#include "util/unique_fd.h"

namespace telvora {

class FileExtensions {
  public:
    // The most unused tokens; each holds a descriptor open.
    static constexpr size_t kMaxTokens = 64;

    // Takes over `file` and its charge, and returns its token, 64 hexadecimal digits. Fails with a reason if
    // the descriptor was not opened for reading (open(2): O_WRONLY, O_PATH), if the path is empty or longer
    // than PATH_MAX, if too many tokens are unused, and if the kernel gives no random numbers.
    tl::expected<std::string, std::string> issue(std::string path, UniqueFd file, QuotaCharge charge);

    // Returns the descriptor of the token and invalidates the token. Without a descriptor if the token does
    // not exist or was issued for another path; then it stays valid.
    UniqueFd consume(const std::string& token, const std::string& path);

    // Invalidates the token, if it exists.
    void release(const std::string& token) { extensions_.erase(token); }

  private:
    struct Extension {
        std::string path;
        UniqueFd file;
        QuotaCharge charge;
    };

    std::unordered_map<std::string, Extension> extensions_;
};

}  // namespace telvora
