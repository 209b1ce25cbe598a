// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/reporting_server.h"

#include <strings.h>

#include <utility>

#include "telvora-lab/event_json.h"
#include "telvora-lab/feed.h"

namespace telvora::lab {
namespace {

constexpr std::pair<std::string_view, ReportingFault> kFaultNames[] = {
    {"none", ReportingFault::none},
    {"notFound", ReportingFault::notFound},
    {"serviceUnavailable", ReportingFault::serviceUnavailable},
    {"noAnswer", ReportingFault::noAnswer},
    {"reset", ReportingFault::reset},
    {"halfAnswer", ReportingFault::halfAnswer},
    {"slow", ReportingFault::slow},
    {"hold", ReportingFault::hold},
};

constexpr const char* kMandatoryHeaders[] = {"User-Agent", "X-TVR-Client-Version", "X-TVR-Sender",
                                             "Accept",     "Content-Type",         "Content-Length"};

constexpr std::chrono::seconds kSlowAnswer(5);
constexpr size_t kMaxProblems = 1000;

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
    if (fault == ReportingFault::reset) response.ending = ServerResponse::Ending::reset;
    if (fault == ReportingFault::halfAnswer) response.ending = ServerResponse::Ending::halfBody;
    return response;
}

// A record of a message for viewers, with the body as it came.
void show(Feed& feed, const ReceivedMessage& message, ReportingFault fault, const std::string* problem,
          std::string_view json) {
    const ServerResponse answer = answerFor(fault);
    const bool answered = answer.ending == ServerResponse::Ending::whole;
    Dictionary headers;
    for (const auto& [name, value] : message.headers)
        headers.set(name, value);
    Dictionary fields{{"path", message.path},
                      {"status", answered ? answer.status : 0},
                      {"fault", std::string(nameOf(fault))},
                      {"headers", std::move(headers)},
                      {"bytes", json.size()}};
    if (problem != nullptr) fields.set("problem", *problem);
    // A message with events is an object of valid JSON, perhaps behind a byte order mark.
    feed.add("message", std::move(fields), message.events.size(),
             message.events.empty() ? std::string_view() : json.substr(json.find('{')));
}

}  // namespace

template <>
NamedValues<ReportingFault> namedValues<ReportingFault>() {
    return kFaultNames;
}

std::optional<std::string> ReceivedMessage::header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) return value;
    }
    return std::nullopt;
}

ReportingServer::ReportingServer(const LabPki& pki, ReportingServerOptions options, const Hosting& hosting)
    : options_(std::move(options)),
      feed_(hosting.feed),
      server_(pki.serverCertificateFile(), pki.serverKeyFile(),
              [this](const ServerRequest& request) { return handle(request); },
              {.address = hosting.address,
               .port = hosting.port,
               .connections = options_.connections,
               .requestsPerConnection = options_.requestsPerConnection}) {}

ReportingServer::~ReportingServer() {
    setFault(ReportingFault::none);
    releaseHeld();
}

void ReportingServer::setFault(ReportingFault fault) {
    MutexLock lock(mutex_);
    fault_ = fault;
}

ReportingFault ReportingServer::fault() const {
    MutexLock lock(mutex_);
    return fault_;
}

void ReportingServer::releaseHeld() {
    MutexLock lock(mutex_);
    ++releases_;
    changed_.notify_all();
}

ServerResponse ReportingServer::handle(const ServerRequest& request) {
    if (request.method != "POST" || (request.path != "/events" && request.path != "/realtime")) {
        MutexLock lock(mutex_);
        complain("unexpected request: " + request.method + " " + request.path);
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
        keep(request, fault);
    } else {
        count(request);
    }
    if (fault == ReportingFault::hold || fault == ReportingFault::slow) {
        const auto deadline = std::chrono::steady_clock::now() + kSlowAnswer;
        MutexLock lock(mutex_);
        while (releases_ == releases) {
            if (fault == ReportingFault::hold) {
                changed_.wait(mutex_);
            } else if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) {
                break;
            }
        }
    }
    return answerFor(fault);
}

void ReportingServer::keep(const ServerRequest& request, ReportingFault fault) {
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

    if (feed_ != nullptr) show(*feed_, received, fault, problem ? &*problem : nullptr, request.body);

    MutexLock lock(mutex_);
    if (problem) complain(std::move(*problem));
    store(std::move(received));
    changed_.notify_all();
}

void ReportingServer::store(ReceivedMessage message) {
    const ClientNames names{message.header("X-TVR-Sender").value_or(""),
                            message.header("X-TVR-Client-Name").value_or(""),
                            message.header("X-TVR-Service-Name").value_or("")};
    for (const Dictionary& event : message.events)
        sessions_.take(event, names);
    ++messageCount_;
    eventCount_ += message.events.size();
    keptEvents_ += message.events.size();
    messages_.push_back(std::move(message));
    while (keptEvents_ > options_.keptEvents) {
        keptEvents_ -= messages_.front().events.size();
        messages_.pop_front();
    }
}

void ReportingServer::complain(std::string problem) {
    if (problems_.size() < kMaxProblems) problems_.push_back(std::move(problem));
}

void ReportingServer::count(const ServerRequest& request) {
    const auto numbers = eventNumbers(request.body, options_.countByKey);

    MutexLock lock(mutex_);
    ++messageCount_;
    if (!numbers) {
        complain(numbers.error());
    } else {
        eventCount_ += numbers->size();
        for (const uint64_t number : *numbers) {
            if (number > kLargestNumber) {
                complain("number out of range");
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
    return {messages_.begin(), messages_.end()};
}

std::vector<Dictionary> ReportingServer::events() const {
    MutexLock lock(mutex_);
    std::vector<Dictionary> all;
    for (const ReceivedMessage& message : messages_) {
        all.insert(all.end(), message.events.begin(), message.events.end());
    }
    return all;
}

std::vector<SessionNode> ReportingServer::sessions() const {
    MutexLock lock(mutex_);
    return sessions_.roots();
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
