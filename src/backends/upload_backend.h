// SPDX-License-Identifier: Apache-2.0
//
// UploadBackend: posts a diagnostic file of the client's, compressed, and removes it once the server has said
// that it has it. File and compressed form are in memory whole, so there is a limit to the file's size: the
// user default "maxUploadBytes", 256 MiB without one.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>

#include "access/client_files.h"
#include "backends/telvora_backend.h"

namespace telvora {

class UploadBackend final : public TelvoraBackend {
  public:
    // Nothing, with a line at level 3, without a text "post_url" in the profile.
    static std::shared_ptr<UploadBackend> make(const BackendServices& services, std::string name,
                                               BackendProfile profile,
                                               std::optional<std::string> productFamily);

    // Any answer that contains "success", and any that is no UTF-8 text, has the file removed; what can't be
    // removed is logged at level 4. False, with a line at level 3, when no request was sent: no regular file,
    // one that is empty, unreadable or too large, too many uploads under way, no URL to send it to, or an
    // HTTP client that does not take the request.
    bool uploadFileAtPath(const std::string& path, const std::string& extensionToken,
                          ClientFiles& clientFiles) override;

    const std::optional<std::string>& uploadURL() const { return uploadURL_; }
    void setUploadURL(std::optional<std::string> url) { uploadURL_ = std::move(url); }

  private:
    using TelvoraBackend::TelvoraBackend;

    tl::expected<ReportOutcome, ReportOutcome> sendFile(const std::string& path,
                                                        const std::string& extensionToken,
                                                        ClientFiles& clientFiles);
    std::optional<HttpRequest> createRequest(const std::string& path, std::string body) const;
    bool isDelivered(const HttpResult& result) const;
    uint64_t maxUploadBytes() const;

    std::optional<std::string> uploadURL_;
};

// Everything but what may stand in a query (RFC 3986, section 3.4) as %XX of its UTF-8 bytes.
std::string percentEncodedForQuery(std::string_view text);

}  // namespace telvora
