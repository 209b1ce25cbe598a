// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/backend_run.h"

#include "backends/vodex_backend.h"

namespace telvora::bag {

namespace {

// The last four bytes of a gzip stream are the length of the uncompressed data (RFC 1952).
size_t lengthOfContent(const std::string& gzip) {
    size_t length = 0;
    for (size_t i = 1; i <= 4 && i <= gzip.size(); ++i)
        length = length << 8 | static_cast<unsigned char>(gzip[gzip.size() - i]);
    return length;
}

bool hasHeader(const HttpRequest& request, std::string_view name) {
    return HttpResponse{0, request.headers, {}}.header(name).has_value();
}

}  // namespace

BackendRun::BackendRun(const std::string& name, const PropertyList& profile, const Scenario& scenario)
    : dryRun_(scenario, *this),
      backend_(dryRun_.makeBackend(std::make_shared<const Dictionary>(Dictionary{{name, profile}}))),
      handedOn_(dynamic_cast<const VodexBackend*>(backend_.get()) != nullptr) {
    dryRun_.onRequest = [this](const HttpRequest& request) { posted(request); };
    if (backend_) backend_->updateState();
}

void BackendRun::send(uint16_t category, uint16_t type, const std::optional<Dictionary>& payload,
                      SendFlag flag) {
    dryRun_.advance(1);
    if (!backend_ || handedOn_) return;
    if (const auto excluded = backend_->exclusionOf(category, "send")) {
        return backend_->reports().accept(*excluded);
    }
    backend_->sendMessage(payload, dryRun_.now(), category, type, flag);
}

void BackendRun::flush() {
    if (backend_) backend_->flushMessagesWithCompletion({});
}

void BackendRun::filtered(const std::string& /*backend*/, const std::string& key, const EventFilter& filter) {
    if (onFiltered) onFiltered(key, filter);
}

void BackendRun::leaving(const std::string& /*backend*/, std::span<const Dictionary> events) {
    leaving_.assign(events.begin(), events.end());
}

void BackendRun::posted(const HttpRequest& request) {
    const bool compressed = hasHeader(request, "Content-Encoding");
    const size_t json = compressed ? lengthOfContent(request.body) : request.body.size();
    if (onPost) onPost({request.url, leaving_, json, request.body.size()});
}

std::string reasonOf(ReportOutcome outcome) {
    switch (outcome) {
        case ReportOutcome::notWhitelisted:
            return "not on event_whitelist";
        case ReportOutcome::blacklisted:
            return "on event_blacklist";
        case ReportOutcome::disabled:
            return "the backend is disabled";
        case ReportOutcome::sampledOut:
            return "the session is sampled out";
        case ReportOutcome::noUserInfo:
            return "there is no user info";
        case ReportOutcome::batchFull:
            return "the batch was full and could not be sent";
        case ReportOutcome::noURL:
            return "there is no URL to post to";
        case ReportOutcome::notSupported:
            return "sessions send no reports to this backend";
        default:
            return nameOf(outcome);
    }
}

}  // namespace telvora::bag
