// SPDX-License-Identifier: Apache-2.0
//
// Makes messages of events, posts them and evaluates the answers.
#include <algorithm>

#include "backends/https_post_backend.h"
#include "backends/json_message.h"
#include "config/client_type.h"
#include "http/http_request_rules.h"
#include "platform/uuid.h"
#include "policy/absent_text.h"
#include "telvora/keys.h"
#include "util/compression.h"
#include "util/log.h"

namespace telvora {

namespace {

// Upper estimate of the memory that a request takes beside its body, in bytes. It is charged to the user's
// pending bytes, which thus also bound the number of requests.
constexpr size_t kRequestBytes = 4096;

// Replaces control characters, which a field value must not contain (RFC 9110, section 5.5), by blanks. The
// values come from clients; a line feed would start another header.
std::string fieldValue(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
    return text;
}

}  // namespace

std::string HTTPSPostBackend::clientIdentifier() const {
    if (policy_.extrasOnInternal != 0 && identity_->isInternal) return identity_->udid.data();
    if (policy_.uuidCustom) return *policy_.uuidCustom;
    return policy_.dnuType != 0 ? *uuidOverrideDnu_ : *uuidRespectDnu_;
}

bool HTTPSPostBackend::isMessageLogged() const {
    if (policy_.dnuType == 0 && dnuEnabled_) return true;
    if (!forceEventLogging_) return false;
    const EnvironmentType environment = services_.environment.userDefaultsEnvironment();
    return environment == EnvironmentType::development || environment == EnvironmentType::zandorInternal;
}

std::string HTTPSPostBackend::createMessageForPostAndLogging(
    std::span<Dictionary> events, std::optional<std::string>& prettyJsonString) const {
    for (Dictionary& event : events)
        makeJsonSafe(event);
    if (services_.trace != nullptr) services_.trace->leaving(name_, events);
    const JsonMessage message{TelvoradUtil::secondsFromTimeValue(services_.clock()), clientIdentifier(),
                              events};
    if (isMessageLogged()) prettyJsonString = prettyJson(message);
    return compactJson(message);
}

void HTTPSPostBackend::postJSONMessage(std::string json, Load load, SendFlag flag,
                                       std::optional<uint16_t> method, std::optional<uint16_t> responseCode,
                                       PostCompletion completion) {
    const std::string* const url = isRealtime(flag) ? policy_.realtimePostURL : policy_.postURL;
    if (url == nullptr) {
        load.reports.settle(ReportOutcome::noURL);
        if (completion) completion(makeTelvoraError("postURL is nil", -1));
        return;
    }
    HttpRequest request = requestForMessage(*url, std::move(json), method, responseCode);
    const size_t bytes = kRequestBytes + request.body.capacity();
    load.charge.resize(bytes + load.answerBytes);
    if (services_.outbox != nullptr) {
        load.charge.resize(2 * bytes + load.answerBytes);
        load.copy = std::make_unique<OutboxMessage>(OutboxMessage{.request = request,
                                                                  .reports = load.reports.count(),
                                                                  .underConsent = policy_.dnuType == 0,
                                                                  .identifier = *uuidRespectDnu_});
    }
    auto shared = std::make_shared<Load>(std::move(load));
    if (!isRealtime(flag) && services_.outbox != nullptr && services_.outbox->sparesLink())
        return keepUnposted(std::move(request), std::move(shared), std::move(completion));
    post(std::move(request), std::move(shared), std::move(completion));
}

void HTTPSPostBackend::post(HttpRequest request, std::shared_ptr<Load> load, PostCompletion completion) {
    auto self = std::static_pointer_cast<HTTPSPostBackend>(shared_from_this());
    std::string url = request.url;
    services_.http.start(std::move(request),
                         [self = std::move(self), url = std::move(url), load = std::move(load),
                          completion = std::move(completion)](const HttpResult& result) {
                             self->handlePostResult(url, result, *load, completion);
                         });
}

// A message that the outbox can't take leaves at once: no report is lost for the link's sake.
void HTTPSPostBackend::keepUnposted(HttpRequest request, std::shared_ptr<Load> load,
                                    PostCompletion completion) {
    auto self = std::static_pointer_cast<HTTPSPostBackend>(shared_from_this());
    OutboxMessage message = std::move(*std::exchange(load->copy, nullptr));
    const auto unkept = std::make_shared<HttpRequest>(std::move(request));
    services_.outbox->keep(std::move(message), nullptr,
                           [self = std::move(self), unkept, load = std::move(load),
                            completion = std::move(completion)](bool kept) {
                               if (!kept) return self->post(std::move(*unkept), load, completion);
                               load->reports.settle(ReportOutcome::kept);
                               load->charge = {};
                               if (completion) completion(std::nullopt);
                           });
}

HttpRequest HTTPSPostBackend::requestForMessage(const std::string& url, std::string json,
                                                std::optional<uint16_t> method,
                                                std::optional<uint16_t> responseCode) const {
    HttpRequest request;
    request.method = "POST";
    request.url = url;
    request.user = user_.uid();
    request.keepResponseBody = false;
    request.headers.reserve(10);
    const auto add = [&request](const char* name, std::string value) {
        request.headers.emplace_back(name, fieldValue(std::move(value)));
    };
    if (auto clientName = userInfoText(userInfoDict_.get(), kTelvoraUserInfoClientName)) {
        add("X-TVR-Client-Name", std::move(*clientName));
    }
    if (auto serviceName = userInfoText(userInfoDict_.get(), kTelvoraUserInfoServiceName)) {
        add("X-TVR-Service-Name", std::move(*serviceName));
    }
    if (identity_->isInternal) add("X-TVR-Internal-Build", "1");
    add("User-Agent", "Telvora/" + identity_->selfVersion.text + " (" +
                          textOrNull(identity_->device->hardwareType) + "; " +
                          textOrNull(identity_->device->osVersion) + ")");
    add("X-TVR-Client-Version", std::to_string(identity_->clientVersion));
    add("X-TVR-Sender", std::string(senderCodeForClientType(identity_->compType)));
    if (method && responseCode) {
        add("X-TVR-Event-Map", std::to_string(*method) + " " + std::to_string(*responseCode));
    }
    // A server that has seen the message recognises a later attempt
    // (draft-ietf-httpapi-idempotency-key-header).
    if (services_.outbox != nullptr) add("Idempotency-Key", '"' + randomUuidString() + '"');
    add("Accept", "application/json");
    add("Content-Type", "application/json");
    // The HTTP client derives "Content-Length" from the body.
    std::optional<std::string> compressed = TelvoradUtil::gzipDeflate(json);
    if (compressed && !compressed->empty() && compressed->size() < json.size()) {
        add("Content-Encoding", "gzip");
        request.body = std::move(*compressed);
        // The compression reserves memory for the worst case.
        if (request.body.size() < request.body.capacity() / 2) request.body.shrink_to_fit();
    } else {
        request.body = std::move(json);
    }
    return request;
}

// Settles the reports of a post, or hands them over to the outbox.
void HTTPSPostBackend::settle(const HttpResult& result, Load& load) {
    const ReportOutcome outcome = outcomeOf(result);
    if (load.copy == nullptr || !mayBePostedLater(load.copy->request, result)) {
        if (load.copy != nullptr && result) services_.outbox->reached(load.copy->request.url);
        load.charge = {};
        return load.reports.settle(outcome);
    }
    load.copy->charge = std::move(load.charge);
    const auto reports = std::make_shared<InFlightReports>(std::move(load.reports));
    services_.outbox->keep(std::move(*load.copy), &result, [reports, outcome](bool kept) {
        reports->settle(kept ? ReportOutcome::kept : outcome);
    });
}

// On the HTTP client's thread.
void HTTPSPostBackend::handlePostResult(const std::string& url, const HttpResult& result, Load& load,
                                        const PostCompletion& completion) {
    const LogScope onBehalfOfUser(user_.logAdmission());
    settle(result, load);
    if (result && outcomeOf(result) == ReportOutcome::rejected) {
        TELVORA_LOG(kLogWarning, "HTTPSPostBackend(postJsonMessage): %s answered %d", urlForLog(url).c_str(),
                    result->status);
    }
    std::optional<TelvoraError> error;
    if (!result) {
        TELVORA_LOG(kLogError, "HTTPSPostBackend(postJsonMessage): post error: %s",
                    result.error().description.c_str());
        error = makeTelvoraError(result.error().description, -1);
    } else if (result->status >= 500 && result->status <= 599) {
        std::string message =
            "backend " + name_ + " disabled by server " + std::to_string(result->status) + " return code";
        TELVORA_LOG(kLogInfo, "postJSONMessage: %s", message.c_str());
        setState(BackendState::disabled, Decision::serverFailed);
        error = makeTelvoraError(std::move(message), result->status);
    }
    if (completion) completion(std::move(error));
}

}  // namespace telvora
