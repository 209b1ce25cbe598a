// SPDX-License-Identifier: Apache-2.0
//
// MessageOutbox: takes messages that found no server, or that wait for a better link, to post them later
// (outbox/stored_outbox.h).
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "access/user_quotas.h"
#include "http/http_client.h"

namespace telvora {

struct OutboxMessage {
    HttpRequest request;        // each attempt sends it unchanged
    size_t reports = 0;         // the events in it
    bool underConsent = false;  // it may leave only as long as the user shares diagnostics
    std::string identifier;     // the device's, for reports that respect the consent, when it was recorded
    QuotaCharge charge = {};    // held until the message is stored
};

// All operations are callable from any thread.
class MessageOutbox {
  public:
    virtual ~MessageOutbox() = default;

    // Takes a message whose post had this result; null: it was not posted yet. `done` runs once, on any
    // thread: after true, the outbox accounts for the reports, and after false the caller.
    virtual void keep(OutboxMessage message, const HttpResult* result, std::function<void(bool)> done) = 0;
    // Whether the link is to be spared: a message that is not realtime is kept instead of posted.
    virtual bool sparesLink() const = 0;
    // A server has answered a post to this URL: messages that wait for it may leave at once.
    virtual void reached(const std::string& url) = 0;
};

// Whether a later attempt may succeed: the server was not reached or did not answer in time, or its answer
// says so (408, 425, 429, 5xx; RFC 9110 and RFC 6585).
bool mayBePostedLater(const HttpRequest& request, const HttpResult& result);

}  // namespace telvora
