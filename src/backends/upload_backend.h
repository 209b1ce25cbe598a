// SPDX-License-Identifier: Apache-2.0
//
// UploadBackend: posts a diagnostic file of the client's, compressed, and removes it once the server has
// confirmed it. The file and its compressed form are held in memory as a whole. The user default
// "maxUploadBytes" limits the file's size, in bytes; its default is 256 MiB.
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
    // Null, with a line at level 3, if the profile has no string "post_url".
    static std::shared_ptr<UploadBackend> make(const BackendServices& services, std::string name,
                                               BackendProfile profile, SharedIdentity identity);

    // Posts the file, and removes it if the answer contains "success" or is not UTF-8 text. A failed removal
    // is logged at level 4. Returns false, with a line at level 3, if no request was sent: the file is not
    // regular, empty, unreadable or too large, too many uploads are under way, the URL is invalid, or the
    // HTTP client refuses the request. Blocks on file I/O.
    void uploadFileAtPath(const FileUpload& upload, UploadCompletion done) override;

  private:
    UploadBackend(const BackendServices& services, std::string name, BackendProfile profile,
                  SharedIdentity identity, std::string uploadURL);

    // An upload under way. Used on the strand, except for the result that the HTTP client leaves.
    struct Transfer {
        FileUpload upload;
        UploadCompletion done;
        ClientFile file = {};
        std::unique_ptr<UploadAdmission::Ticket> ticket = {};
        HttpResult result = {};
        InFlightReports entry = {};  // in the account of uploads
    };
    using SharedTransfer = std::shared_ptr<Transfer>;
    // An error if no request was sent.
    using Outcome = tl::expected<ReportOutcome, ReportOutcome>;

    std::optional<ReportOutcome> openFile(Transfer& transfer) const;
    void sendFile(SharedTransfer transfer);
    Outcome outcomeOfTransfer(const Transfer& transfer) const;
    void finish(Transfer& transfer, const Outcome& outcome);
    std::shared_ptr<UploadBackend> self() {
        return std::static_pointer_cast<UploadBackend>(shared_from_this());
    }
    std::optional<HttpRequest> createRequest(const std::string& path, std::string body) const;
    bool isDelivered(const HttpResult& result) const;
    uint64_t maxUploadBytes() const;

    const std::string uploadURL_;
};

// Percent-encodes each byte that a query may not contain (RFC 3986, section 3.4).
std::string percentEncodedForQuery(std::string_view text);

}  // namespace telvora
