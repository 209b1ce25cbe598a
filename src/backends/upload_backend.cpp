// SPDX-License-Identifier: Apache-2.0
#include "backends/upload_backend.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "async/work_pool.h"
#include "http/http_request_rules.h"
#include "platform/known_settings.h"
#include "util/compression.h"
#include "util/log.h"
#include "util/percent_encoding.h"
#include "util/utf8.h"

namespace telvora {

namespace {

constexpr std::string_view kDescription = "Vidora DLRC log";

// The last component of a path, which need not exist.
std::string_view lastPathComponent(std::string_view path) {
    const size_t end = path.find_last_not_of('/');
    path = path.substr(0, end == std::string_view::npos ? 0 : end + 1);
    return path.substr(path.rfind('/') + 1);
}

using Compressed = tl::expected<std::string, ReportOutcome>;

ReportOutcome tooLarge(uint64_t maxSize) {
    TELVORA_LOG(kLogError, "UploadBackend(uploadFileAtPath): The file is larger than %llu bytes",
                static_cast<unsigned long long>(maxSize));
    return ReportOutcome::fileTooLarge;
}

// Reads and compresses the whole file. Fails if it is empty, too large, unreadable or incompressible.
Compressed compressedContent(const ClientFile& file, uint64_t maxSize) try {
    auto content = readWholeFile(file.file.get(), file.size(), maxSize);
    if (!content && content.error() == EFBIG) return tl::unexpected(tooLarge(maxSize));  // it grew meanwhile
    if (!content || content->empty()) {
        TELVORA_LOG(kLogError, "UploadBackend(uploadFileAtPath): Input file is empty");
        return tl::unexpected(ReportOutcome::fileUnreadable);
    }
    std::optional<std::string> compressed = TelvoradUtil::gzipDeflate(*content);
    *content = std::string();
    if (!compressed) return tl::unexpected(ReportOutcome::fileUnreadable);
    // The buffer is sized for the worst case, and the server may take long to accept its content.
    if (compressed->size() < compressed->capacity() / 2) compressed->shrink_to_fit();
    return std::move(*compressed);
} catch (const std::bad_alloc&) {
    TELVORA_LOG(kLogError, "UploadBackend(uploadFileAtPath): There is no memory for %s", file.path.c_str());
    return tl::unexpected(ReportOutcome::fileUnreadable);
}

ReportOutcome refused(const std::string& path, const FileRefusal& refusal) {
    TELVORA_LOG(kLogError, "UploadBackend(uploadFileAtPath): %s",
                refusal.isRegularFile ? "Input file is empty" : "Only upload a regular file.");
    TELVORA_LOG(kLogInfo, "UploadBackend(uploadFileAtPath): refused %s: %s", path.c_str(),
                refusal.reason.c_str());
    return refusal.isRegularFile ? ReportOutcome::fileUnreadable : ReportOutcome::fileRefused;
}

bool wasSent(const HttpError& error) {
    return error.kind == HttpError::Kind::noConnection || error.kind == HttpError::Kind::noAnswer;
}

void removeFile(const ClientFiles& clientFiles, const ClientFile& file) {
    const auto removed = clientFiles.remove(file);
    if (removed) return;
    TELVORA_LOG(kLogWarning, "UploadBackend(uploadFileAtPath): %s stays where it is: %s", file.path.c_str(),
                removed.error().c_str());
}

}  // namespace

std::shared_ptr<UploadBackend> UploadBackend::make(const BackendServices& services, std::string name,
                                                   BackendProfile profile, SharedIdentity identity) {
    const Dictionary* entries = profile ? profile->getIf<Dictionary>() : nullptr;
    const std::string* postURL = entries != nullptr ? entries->string("post_url") : nullptr;
    if (postURL == nullptr) {
        TELVORA_LOG(kLogError, "UploadBackend(initWithName): can't resolve upload post URL.");
        return nullptr;
    }
    return std::shared_ptr<UploadBackend>(
        new UploadBackend(services, std::move(name), profile, std::move(identity), *postURL));
}

UploadBackend::UploadBackend(const BackendServices& services, std::string name, BackendProfile profile,
                             SharedIdentity identity, std::string uploadURL)
    : TelvoraBackend(services, std::move(name), std::move(profile), std::move(identity)),
      uploadURL_(std::move(uploadURL)) {
    displayURL_ = profileDictionary()->string("display_url");
}

void UploadBackend::uploadFileAtPath(const FileUpload& upload, UploadCompletion done) {
    TELVORA_LOG(kLogDebug, "UploadBackend(uploadFileAtPath): Uploading file %s", upload.path.c_str());
    const auto account = uploads();
    account->accept();
    InFlightReports entry(account, 1);
    const auto transfer = std::make_shared<Transfer>(Transfer{upload, std::move(done)});
    transfer->entry = std::move(entry);
    if (const auto refusal = openFile(*transfer)) return finish(*transfer, tl::unexpected(*refusal));
    // The file and its compressed form.
    const uint64_t bytes = 2 * transfer->file.size();
    upload.files->admit(bytes, [self = self(), transfer](std::unique_ptr<UploadAdmission::Ticket> ticket) {
        transfer->ticket = std::move(ticket);
        transfer->upload.perform(
            [self, held = SharedTransfer(transfer)]() mutable { self->sendFile(std::move(held)); });
    });
}

// Returns the outcome if the file can't be uploaded.
std::optional<ReportOutcome> UploadBackend::openFile(Transfer& transfer) const {
    const BlockingSection blocking;
    const FileUpload& upload = transfer.upload;
    auto file = upload.files->open(upload.path, upload.extensionToken);
    if (!file) return refused(upload.path, file.error());
    transfer.file = std::move(*file);
    const uint64_t maxSize = maxUploadBytes();
    if (transfer.file.size() > maxSize) return tooLarge(maxSize);
    return std::nullopt;
}

// Moves the transfer on: an exception on the HTTP client's thread ends it, and with it the call that waits.
void UploadBackend::sendFile(SharedTransfer transfer) {
    if (!transfer->ticket) {
        TELVORA_LOG(kLogError, "UploadBackend(uploadFileAtPath): Too many uploads are under way");
        return finish(*transfer, tl::unexpected(ReportOutcome::tooManyPending));
    }
    const BlockingSection blocking;
    Compressed compressed = compressedContent(transfer->file, maxUploadBytes());
    if (!compressed) return finish(*transfer, tl::unexpected(compressed.error()));
    transfer->ticket->shrink(compressed->capacity());
    std::optional<HttpRequest> request = createRequest(transfer->upload.path, std::move(*compressed));
    if (!request) return finish(*transfer, tl::unexpected(ReportOutcome::notSent));
    services_.http.start(
        std::move(*request), [self = self(), transfer = std::move(transfer)](HttpResult result) {
            transfer->result = std::move(result);
            transfer->upload.perform(
                [self, transfer] { self->finish(*transfer, self->outcomeOfTransfer(*transfer)); });
        });
}

UploadBackend::Outcome UploadBackend::outcomeOfTransfer(const Transfer& transfer) const {
    const HttpResult& result = transfer.result;
    if (result && !isSuccess(*result)) {
        TELVORA_LOG(kLogWarning, "UploadBackend(uploadFileAtPath): %s answered %d",
                    urlForLog(uploadURL_).c_str(), result->status);
    }
    if (isDelivered(result)) {
        const BlockingSection blocking;
        removeFile(*transfer.upload.files, transfer.file);
        return ReportOutcome::delivered;
    }
    if (result) return ReportOutcome::rejected;
    if (wasSent(result.error())) return outcomeOf(result);
    return tl::unexpected(outcomeOf(result));
}

// Closes the file and gives its memory back before the next upload.
void UploadBackend::finish(Transfer& transfer, const Outcome& outcome) {
    transfer.file = {};
    transfer.ticket.reset();
    transfer.entry.settle(outcome ? *outcome : outcome.error());
    std::exchange(transfer.done, nullptr)(outcome.has_value());
}

std::optional<HttpRequest> UploadBackend::createRequest(const std::string& path, std::string body) const {
    HttpRequest request;
    request.method = "POST";
    request.purpose = HttpPurpose::upload;
    request.user = user_.uid();
    request.url =
        uploadURL_ + "?uuid=" + identity_->udid.data() + "&sequence=" + std::to_string(identity_->sessionID) +
        "&description=" + percentEncodedForQuery(kDescription) + "%20(Uploaded%20by%20PLS)&filename=" +
        percentEncodedForQuery(std::string(lastPathComponent(path)) + ".gz") + "&raw=true";
    request.headers = {{"Content-Type", "application/octet-stream"}, {"Content-Encoding", "gzip"}};
    request.body = std::move(body);
    request.countBody = false;  // the ticket counts it
    if (faultOfRequest(request)) {
        TELVORA_LOG(kLogError, "UploadBackend(uploadFileAtPath): Unable to create URL request");
        return std::nullopt;
    }
    return request;
}

// Whether the server confirms the file. An answer that is no text counts as a confirmation.
bool UploadBackend::isDelivered(const HttpResult& result) const {
    if (!result || result->body.empty()) {
        TELVORA_LOG(kLogError, "UploadBackend(uploadFileAtPath): post %s",
                    result ? "(null)" : result.error().description.c_str());
        return false;
    }
    const bool isText = isValidUtf8(result->body);
    TELVORA_LOG(kLogDebug, "UploadBackend(uploadFileAtPath): sending to |%s|, Json output: %s",
                uploadURL_.c_str(), isText ? result->body.c_str() : "(null)");
    return !isText || result->body.find("success") != std::string::npos;
}

uint64_t UploadBackend::maxUploadBytes() const {
    return static_cast<uint64_t>(integerSetting(services_.defaults, settings::kMaxUploadBytes));
}

std::string percentEncodedForQuery(std::string_view text) {
    return percentEncoded(text, [](char c) {
        constexpr std::string_view kMarks = "!$&'()*+,;=:@/?";
        return kUnreservedCharacters.find(c) != std::string_view::npos ||
               kMarks.find(c) != std::string_view::npos;
    });
}

}  // namespace telvora
