// SPDX-License-Identifier: Apache-2.0
//
// FileExtensions: the sandbox extensions of one connection. A client that has a file open hands its
// descriptor over and gets a token; whoever presents that token for the same path gets the descriptor. So the
// client shows that it could read the file by having it open, and no name is looked up again.
//
// A token is 256 random bits, known to its own connection's store alone, and good for one use. The store
// belongs to its connection's strand. Destruction closes what is left.
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
    // Tokens that may be out at a time; each holds a descriptor open.
    static constexpr size_t kMaxTokens = 64;

    // Takes over `file`, with its place in a quota, and returns its token, 64 hexadecimal digits. Fails with
    // a reason when the descriptor was not opened for reading (open(2): O_WRONLY, O_PATH), when the path is
    // empty or longer than PATH_MAX, when too many tokens are out, and when the kernel gives no random
    // numbers.
    tl::expected<std::string, std::string> issue(std::string path, UniqueFd file, QuotaCharge place);

    // Gives up the descriptor that the token was issued for; from then on the token is void. None when there
    // is no such token or it was issued for another path; then it stays as it was.
    UniqueFd consume(const std::string& token, const std::string& path);

    // Makes the token void, if it isn't.
    void release(const std::string& token) { extensions_.erase(token); }

  private:
    struct Extension {
        std::string path;
        UniqueFd file;
        QuotaCharge place;
    };

    std::unordered_map<std::string, Extension> extensions_;
};

}  // namespace telvora
