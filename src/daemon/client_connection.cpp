// SPDX-License-Identifier: Apache-2.0
//
// Who owns whom: the bus is kept alive by its own waiting, and owns this connection through its closed
// handler; this connection only points back. So a connection ends as a whole when the bus ends, or with the
// pool that it ran on.
#include "daemon/client_connection.h"

#include <asio/post.hpp>
#include <deque>

#include "daemon/client_calls.h"
#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"
#include "util/log.h"
#include "util/mutex.h"

namespace telvora {

namespace {

struct MessageToClient {
    std::optional<Dictionary> sessionInfo;
    double timestamp = 0;
    uint16_t category = 0;
    uint16_t type = 0;
    std::optional<Dictionary> payload;

    size_t size() const {
        constexpr size_t kRest = 128;  // header and plain arguments
        return kRest + (sessionInfo ? wireSize(*sessionInfo) : 0) + (payload ? wireSize(*payload) : 0);
    }
};

class BusClientConnection : public ClientConnection,
                            public std::enable_shared_from_this<BusClientConnection> {
  public:
    BusClientConnection(Strand strand, std::string description)
        : strand_(std::move(strand)), description_(std::move(description)) {}

    void adopt(tl::expected<std::shared_ptr<BusConnection>, std::string> bus) {
        if (bus) {
            starting_ = std::move(*bus);
        } else {
            failure_ = bus.error();
        }
    }

    void setExportedObject(std::shared_ptr<ClientSessionInterface> session) override {
        targets_.session = std::move(session);
    }
    void setFileExtensionIssuer(std::shared_ptr<FileExtensionIssuer> issuer) override {
        targets_.issuer = std::move(issuer);
    }
    void setUser(QuotaUser user) override { targets_.user = std::move(user); }
    void setInvalidationHandler(std::function<void()> handler) override {
        invalidationHandler_ = std::move(handler);
    }
    void setGoneHandler(std::function<void()> handler) override { goneHandler_ = std::move(handler); }
    std::string description() const override { return description_; }

    void resume() override;
    void invalidate() override;
    void sendMessageToClient(std::optional<Dictionary> sessionInfo, double timestamp, uint16_t category,
                             uint16_t type, std::optional<Dictionary> payload) override;

  private:
    void begin();
    tl::expected<void, std::string> exportInterfaces(BusConnection& bus);
    void ended(const std::string& reason);
    void gone();
    std::optional<std::string> enqueue(MessageToClient message) TELVORA_EXCLUDES(outboxLock_);
    std::deque<MessageToClient> takeOutbox() TELVORA_EXCLUDES(outboxLock_);
    void drainOutbox() TELVORA_EXCLUDES(outboxLock_);
    static tl::expected<void, std::string> deliver(BusConnection& bus, const MessageToClient& message);
    static void logUndelivered(const std::string& reason);

    const Strand strand_;
    const std::string description_;
    std::function<void()> invalidationHandler_;
    std::function<void()> goneHandler_;
    ClientCallTargets targets_;

    // Used on the strand alone, once make() is through.
    std::shared_ptr<BusConnection> starting_;  // until resume()
    std::string failure_;                      // why there is none
    BusConnection* bus_ = nullptr;             // from resume() to the bus's end

    Mutex outboxLock_;
    std::deque<MessageToClient> outbox_ TELVORA_GUARDED_BY(outboxLock_);
    size_t outboxBytes_ TELVORA_GUARDED_BY(outboxLock_) = 0;
    bool ended_ TELVORA_GUARDED_BY(outboxLock_) = false;
};

void BusClientConnection::resume() {
    asio::post(strand_, [self = shared_from_this()] { self->begin(); });
}

void BusClientConnection::begin() {
    const std::shared_ptr<BusConnection> bus = std::move(starting_);
    if (bus) {
        if (const auto exported = exportInterfaces(*bus); !exported) failure_ = exported.error();
    }
    if (!bus || !failure_.empty()) {
        ended(failure_);
        return gone();
    }
    bus_ = bus.get();
    bus->start([self = shared_from_this()](const std::string& reason) { self->ended(reason); },
               [self = shared_from_this()] { self->gone(); });
}

tl::expected<void, std::string> BusClientConnection::exportInterfaces(BusConnection& bus) {
    auto exported =
        bus.exportInterface(kTelvoradPath, clientSessionBusInterface(), clientSessionHandlers(bus, targets_));
    if (!exported) return exported;
    return bus.exportInterface(kTelvoradPath, sandboxExtensionBusInterface(),
                               sandboxExtensionHandlers(bus, targets_));
}

void BusClientConnection::invalidate() {
    asio::post(strand_, [self = shared_from_this()] {
        if (self->bus_ != nullptr) return self->bus_->close("invalidated");
        self->starting_.reset();
        self->failure_ = "invalidated";
    });
}

// The session may send its last message while it is given up, so the outbox is emptied once more after that;
// from then on there is nobody to send to.
void BusClientConnection::ended(const std::string& reason) {
    TELVORA_LOG(kLogDebug, "ClientConnection(ended): %s: %s", description_.c_str(), reason.c_str());
    const LogScope onBehalfOfUser(targets_.user.logAdmission());
    targets_.session.reset();
    targets_.issuer.reset();
    if (const auto handler = std::exchange(invalidationHandler_, nullptr)) handler();
    drainOutbox();
    bus_ = nullptr;
    {
        const MutexLock lock(outboxLock_);
        ended_ = true;
    }
    drainOutbox();
}

void BusClientConnection::gone() {
    if (const auto handler = std::exchange(goneHandler_, nullptr)) handler();
}

// --- Calls to the client ---

void BusClientConnection::sendMessageToClient(std::optional<Dictionary> sessionInfo, double timestamp,
                                              uint16_t category, uint16_t type,
                                              std::optional<Dictionary> payload) {
    const auto refused = enqueue({std::move(sessionInfo), timestamp, category, type, std::move(payload)});
    if (refused) return logUndelivered(*refused);
    // What a client's own operation brings it goes out before the operation's answer.
    if (strand_.running_in_this_thread()) drainOutbox();
}

// Always by way of the outbox, from the strand as well, so that messages keep the order they were sent in.
std::optional<std::string> BusClientConnection::enqueue(MessageToClient message) {
    const size_t size = message.size();
    const MutexLock lock(outboxLock_);
    if (ended_) return "the connection has ended";
    if (outbox_.size() >= kMaxOutboxMessages || outboxBytes_ + size > kMaxOutboxBytes) {
        return "too many messages are waiting";
    }
    outbox_.push_back(std::move(message));
    outboxBytes_ += size;
    if (outbox_.size() == 1) asio::post(strand_, [self = shared_from_this()] { self->drainOutbox(); });
    return std::nullopt;
}

std::deque<MessageToClient> BusClientConnection::takeOutbox() {
    const MutexLock lock(outboxLock_);
    outboxBytes_ = 0;
    return std::exchange(outbox_, {});
}

void BusClientConnection::drainOutbox() {
    const LogScope onBehalfOfUser(targets_.user.logAdmission());
    for (const MessageToClient& message : takeOutbox()) {
        const auto sent = bus_ != nullptr
                              ? deliver(*bus_, message)
                              : tl::expected<void, std::string>(tl::unexpect, "the connection has ended");
        if (!sent) logUndelivered(sent.error());
    }
}

tl::expected<void, std::string> BusClientConnection::deliver(BusConnection& bus,
                                                             const MessageToClient& message) {
    static const BusInterface& interface = clientSessionReplyBusInterface();
    BusMessage call =
        bus.newCall(kTelvoradClientPath, interface.name().c_str(), interface.methods()[0].name.c_str());
    if (call) {
        ArgumentWriter out(call);
        out.optionalDictionary(message.sessionInfo);
        out.real(message.timestamp);
        out.u16(message.category);
        out.u16(message.type);
        out.optionalDictionary(message.payload);
        if (out.result() < 0) return tl::unexpected(std::string("the message can't be written"));
    }
    return bus.sendOneWay(std::move(call));
}

void BusClientConnection::logUndelivered(const std::string& reason) {
    TELVORA_LOG(kLogError, "sendMessageWithDictionary: Failed to get remote object proxy: %s",
                reason.c_str());
}

}  // namespace

std::shared_ptr<ClientConnection> ClientConnection::make(Strand strand, UniqueFd socket,
                                                         std::string description, BusLimits limits) {
    auto connection = std::make_shared<BusClientConnection>(strand, std::move(description));
    connection->adopt(BusConnection::make(strand, std::move(socket), BusRole::kServer, limits));
    return connection;
}

}  // namespace telvora
