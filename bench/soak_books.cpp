// SPDX-License-Identifier: Apache-2.0
#include "soak_books.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "record.h"
#include "telvora-lab/event_json.h"

namespace telvora::bench {
namespace {

constexpr size_t kConnections = 32;

lab::ServerResponse answerWith(ServerFault fault) {
    using Ending = lab::ServerResponse::Ending;
    lab::ServerResponse response;
    response.contentType = "application/json";
    response.body = "{\"status\":\"ok\"}";
    if (fault == ServerFault::notFound) response.status = 404;
    if (fault == ServerFault::serverError) response.status = 503;
    if (fault == ServerFault::noAnswer) response.ending = Ending::noAnswer;
    if (fault == ServerFault::reset) response.ending = Ending::reset;
    if (fault == ServerFault::halfAnswer) response.ending = Ending::halfBody;
    if (fault == ServerFault::drip) response.ending = Ending::drip;
    return response;
}

uint64_t& entryOf(Page& page, ServerFault fault) {
    switch (fault) {
        case ServerFault::none:
        case ServerFault::drip:
            return page.delivered;
        case ServerFault::notFound:
            return page.rejected;
        case ServerFault::serverError:
            return page.serverError;
        case ServerFault::noAnswer:
        case ServerFault::reset:
        case ServerFault::halfAnswer:
            break;
    }
    return page.noAnswer;
}

}  // namespace

Books::Books(const lab::LabPki& pki)
    : server_(
          pki.serverCertificateFile(), pki.serverKeyFile(),
          [this](const lab::ServerRequest& request) { return handle(request); },
          lab::HttpsServerOptions{.connections = kConnections}) {
    if (server_.port() == 0) throw std::runtime_error("the reporting server can't listen");
}

// A server that stops would cut off an answer that drips, which counts as delivered.
void Books::refuse() {
    while (dripping_.use_count() > 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    server_.stop();
}

void Books::accept() {
    if (!server_.restart()) throw std::runtime_error("the reporting server can't listen again");
}

void Books::beginPage() {
    refuse();
    accept();
    const MutexLock lock(lock_);
    page_ = {};
}

void Books::setFault(ServerFault fault) {
    const MutexLock lock(lock_);
    fault_ = fault;
}

lab::ServerResponse Books::handle(const lab::ServerRequest& request) {
    const auto message = lab::parseEventMessage(request.body);
    const MutexLock lock(lock_);
    if (!message || !message->events) {
        problems_.push_back(message ? "a message without events" : message.error());
        return {};
    }
    const ServerFault fault = ++messages_ % 3 == 0 ? fault_ : ServerFault::none;
    entryOf(page_, fault) += message->events->size();
    for (const Dictionary& event : *message->events) {
        if (const auto number = event.integer(kNumberKey)) record(static_cast<uint64_t>(*number));
    }
    lab::ServerResponse response = answerWith(fault);
    if (fault == ServerFault::drip) response.held = dripping_;
    return response;
}

void Books::record(uint64_t number) {
    std::vector<bool>& numbers = numbers_[number >> kClientShift];
    const uint64_t index = number & ((uint64_t{1} << kClientShift) - 1);
    if (index >= numbers.size()) numbers.resize(index + 1);
    if (!numbers[index] && categoryOf(number) != kListedCategory) ++page_.numbered;
    ++(numbers[index] ? repeated_ : received_);
    numbers[index] = true;
}

Page Books::page() const {
    const MutexLock lock(lock_);
    return page_;
}

bool Books::received(uint64_t number) const {
    const MutexLock lock(lock_);
    const auto numbers = numbers_.find(number >> kClientShift);
    const uint64_t index = number & ((uint64_t{1} << kClientShift) - 1);
    return numbers != numbers_.end() && index < numbers->second.size() && numbers->second[index];
}

uint64_t Books::receivedCount() const {
    const MutexLock lock(lock_);
    return received_;
}

uint64_t Books::repeatedCount() const {
    const MutexLock lock(lock_);
    return repeated_;
}

std::vector<std::string> Books::problems() const {
    const MutexLock lock(lock_);
    return problems_;
}

}  // namespace telvora::bench
