// SPDX-License-Identifier: Apache-2.0
//
// Uploads of log data. docs/formats.md describes the archive.
#include "dashboard/dashboard_backend.h"
#include "http/http_request_rules.h"
#include "plist/property_list_format.h"
#include "policy/absent_text.h"
#include "util/log.h"
#include "util/utf8.h"

namespace telvora {

namespace {

constexpr uint16_t kLogDataMethod = 0;
constexpr uint16_t kLogDataRespCode = 2;

// The location of the log data in the server's answer. `std::nullopt` without one, with the reason if there
// is one.
std::optional<std::string> uploadLocation(HttpResult result, std::optional<std::string>& reason) {
    if (!result) {
        reason = result.error().description;
        return std::nullopt;
    }
    if (result->body.empty()) return std::nullopt;
    if (!isValidUtf8(result->body)) {
        reason = "the answer is not UTF-8 text";
        return std::nullopt;
    }
    return std::move(result->body);
}

}  // namespace

void DashboardBackend::uploadLogData(const Array& records, const Perform& perform, UploadCompletion done) {
    const auto account = uploads();
    account->accept();
    const auto entry = std::make_shared<InFlightReports>(account, 1);
    if (!postURL_) {
        TELVORA_LOG(kLogError, "DashboardBackend(uploadLogData): Post URL for log data array is nil");
        return finishUpload(*entry, ReportOutcome::noURL, done);
    }
    auto archive = serializePropertyList(records, PropertyListFormat::binary);
    if (!archive) {
        TELVORA_LOG(kLogError,
                    "DashboardBackend(uploadLogData): Failed to serialize log data array for upload");
        return finishUpload(*entry, ReportOutcome::notSent, done);
    }
    HttpRequest request;
    request.method = "POST";
    request.url = *postURL_;
    request.purpose = HttpPurpose::upload;
    request.user = user_.uid();
    request.headers = {{"Content-Type", "application/octet-stream"}};
    request.body = std::move(*archive);
    auto self = std::static_pointer_cast<DashboardBackend>(shared_from_this());
    services_.http.start(
        std::move(request), [self, entry, perform, done = std::move(done)](HttpResult result) mutable {
            perform([self, entry, done = std::move(done), result = std::move(result)]() mutable {
                finishUpload(*entry, self->logDataAnswered(std::move(result)), done);
            });
        });
}

ReportOutcome DashboardBackend::logDataAnswered(HttpResult result) {
    if (result && !isSuccess(*result)) {
        TELVORA_LOG(kLogWarning, "DashboardBackend(uploadLogData): %s answered %d",
                    urlForLog(*postURL_).c_str(), result->status);
    }
    const ReportOutcome withoutLocation = result ? ReportOutcome::rejected : outcomeOf(result);
    std::optional<std::string> reason;
    const auto location = uploadLocation(std::move(result), reason);
    if (!location) {
        TELVORA_LOG(kLogError, "DashboardBackend(uploadLogData): Error uploading log data array (%s)",
                    textOrNull(reason));
        return withoutLocation;
    }
    TELVORA_LOG(kLogDebug, "DashboardBackend(uploadLogData): Log data uploaded to %s", location->c_str());
    sendMessage(Dictionary{{"LogDataUploadLocation", *location}}, services_.clock(), kLogDataMethod,
                kLogDataRespCode, SendFlag{0});
    return ReportOutcome::delivered;
}

void DashboardBackend::finishUpload(InFlightReports& entry, ReportOutcome outcome,
                                    const UploadCompletion& done) {
    entry.settle(outcome);
    done(outcome == ReportOutcome::delivered);
}

}  // namespace telvora
