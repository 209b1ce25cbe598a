// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <tl/expected.hpp>

#include "util/unique_fd.h"

namespace telvora {

// Turns a file that a client has open into an extension token, with which that client may name the file in
// uploadFileAtPath. One issuer serves one connection, on the connection's strand.
class FileExtensionIssuer {
  public:
    virtual ~FileExtensionIssuer() = default;

    // Takes over `file`, the client's open descriptor of the file at `path`. The token, or what the client
    // did wrong.
    virtual tl::expected<std::string, std::string> issueFileExtension(std::string path, UniqueFd file) = 0;
};

}  // namespace telvora
