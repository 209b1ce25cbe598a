// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/reporting_server.h"

#include <strings.h>

#include <utility>

#include "telvora-lab/event_json.h"

namespace telvora::lab {
namespace {

constexpr std::pair<std::string_view, ReportingFault> kFaultNames[] = {
    {"none", ReportingFault::none},
    {"notFound", ReportingFault::notFound},
    {"serviceUnavailable", ReportingFault::serviceUnavailable},
    {"noAnswer", ReportingFault::noAnswer},
    {"halfAnswer", ReportingFault::halfAnswer},
    {"hold", ReportingFault::hold},
};

constexpr const char* kMandatoryHeaders[] = {"User-Agent", "X-TVR-Client-Version", "X-TVR-Sender",
                                             "Accept",     "Content-Type",         "Content-Length"};

// A larger number is not a running number of a measurement.
constexpr uint64_t kLargestNumber = 100'000'000;

std::optional<std::string> headerProblem(const ServerRequest& request) {
    for (const char* name : kMandatoryHeaders) {
        if (!request.header(name)) return std::string("header missing: ") + name;
    }
    for (const char* name : {"Accept", "Content-Type"}) {
        if (request.header(name) != "application/json") return std::string("wrong value of header ") + name;
    }
    const auto encoding = request.header("Content-Encoding");
    if (encoding && encoding != "gzip") return "unknown Content-Encoding";
    return std::nullopt;
}

ServerResponse answerFor(ReportingFault fault) {
    ServerResponse response;
    response.contentType = "application/json";
    response.body = "{\"status\":\"ok\"}";
    if (fault == ReportingFault::notFound) response.status = 404;
    if (fault == ReportingFault::serviceUnavailable) response.status = 503;
    if (fault == ReportingFault::noAnswer) response.ending = ServerResponse::Ending::noAnswer;
    if (fault == ReportingFault::halfAnswer) response.ending = ServerResponse::Ending::halfBody;
    return response;
}

}  // namespace

std::optional<ReportingFault> reportingFaultNamed(std::string_view name) {
    for (const auto& [faultName, fault] : kFaultNames) {
        if (faultName == name) return fault;
    }
    return std::nullopt;
}

std::optional<std::string> ReceivedMessage::header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) return value;
    }
    return std::nullopt;
}

ReportingServer::ReportingServer(const LabPki& pki, ReportingServerOptions options)
    : options_(std::move(options)),
      server_(
          pki.serverCertificateFile(), pki.serverKeyFile(),
          [this](const ServerRequest& request) { return handle(request); }, options_.connections) {}

ReportingServer::~ReportingServer() {
    setFault(ReportingFault::none);
    releaseHeld();
}

void ReportingServer::setFault(ReportingFault fault) {
    MutexLock lock(mutex_);
    fault_ = fault;
}

void ReportingServer::releaseHeld() {
    MutexLock lock(mutex_);
    ++releases_;
    changed_.notify_all();
}

ServerResponse ReportingServer::handle(const ServerRequest& request) {
    if (request.method != "POST" || (request.path != "/events" && request.path != "/realtime")) {
        MutexLock lock(mutex_);
        problems_.push_back("unexpected request: " + request.method + " " + request.path);
        ServerResponse response;
        response.status = 404;
        return response;
    }
    // Taken before the message counts as arrived: a caller that waits for the message and then releases the
    // held answers also releases this one.
    ReportingFault fault;
    uint64_t releases;
    {
        MutexLock lock(mutex_);
        fault = fault_;
        releases = releases_;
    }
    if (options_.countByKey.empty()) {
        keep(request);
    } else {
        count(request);
    }
    if (fault == ReportingFault::hold) {
        MutexLock lock(mutex_);
        while (releases_ == releases)
            changed_.wait(mutex_);
    }
    return answerFor(fault);
}

void ReportingServer::keep(const ServerRequest& request) {
    ReceivedMessage received{request.path, request.headers, 0, {}, {}};
    std::optional<std::string> problem = headerProblem(request);
    auto message = parseEventMessage(request.body);
    if (!message) {
        problem = "no message: " + message.error();
    } else if (!message->postTime || !message->clientId || !message->events) {
        problem = "the message lacks postTime, clientId or events";
    } else {
        received.postTime = *message->postTime;
        received.clientId = std::move(*message->clientId);
        received.events = std::move(*message->events);
    }

    MutexLock lock(mutex_);
    if (problem) problems_.push_back(std::move(*problem));
    ++messageCount_;
    eventCount_ += received.events.size();
    messages_.push_back(std::move(received));
    changed_.notify_all();
}

void ReportingServer::count(const ServerRequest& request) {
    const auto numbers = eventNumbers(request.body, options_.countByKey);

    MutexLock lock(mutex_);
    ++messageCount_;
    if (!numbers) {
        problems_.push_back(numbers.error());
    } else {
        eventCount_ += numbers->size();
        for (const uint64_t number : *numbers) {
            if (number > kLargestNumber) {
                problems_.push_back("number out of range");
                continue;
            }
            if (number >= seen_.size()) seen_.resize(number + 1);
            if (!seen_[number]) ++distinctCount_;
            seen_[number] = true;
        }
    }
    changed_.notify_all();
}

size_t ReportingServer::eventCount() const {
    MutexLock lock(mutex_);
    return eventCount_;
}

size_t ReportingServer::messageCount() const {
    MutexLock lock(mutex_);
    return messageCount_;
}

size_t ReportingServer::distinctCount() const {
    MutexLock lock(mutex_);
    return distinctCount_;
}

size_t ReportingServer::duplicateCount() const {
    MutexLock lock(mutex_);
    return eventCount_ - distinctCount_;
}

std::vector<ReceivedMessage> ReportingServer::messages() const {
    MutexLock lock(mutex_);
    return messages_;
}

std::vector<Dictionary> ReportingServer::events() const {
    MutexLock lock(mutex_);
    std::vector<Dictionary> all;
    for (const ReceivedMessage& message : messages_) {
        all.insert(all.end(), message.events.begin(), message.events.end());
    }
    return all;
}

std::vector<std::string> ReportingServer::problems() const {
    MutexLock lock(mutex_);
    return problems_;
}

bool ReportingServer::waitForEvents(size_t count, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mutex_);
    while (eventCount_ < count) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) return eventCount_ >= count;
    }
    return true;
}

bool ReportingServer::waitForMessages(size_t count, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mutex_);
    while (messageCount_ < count) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) return messageCount_ >= count;
    }
    return true;
}

}  // namespace telvora::lab
