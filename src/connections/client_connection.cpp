// SPDX-License-Identifier: Apache-2.0
//
// Ownership: the bus keeps itself alive and owns this connection through a handler; this connection only
// points back. So both end when the bus ends, or with their pool.
#include "connections/client_connection.h"

#include <asio/dispatch.hpp>
#include <asio/post.hpp>
#include <list>

#include "protocol/client_session_methods.h"
#include "protocol/method_call.h"
#include "protocol/method_export.h"
#include "util/attempt.h"
#include "util/log.h"
#include "util/mutex.h"

namespace telvora {

namespace {

constexpr char kEnded[] = "the connection has ended";

struct MessageToClient {
    std::shared_ptr<const Dictionary> sessionInfo;
    double timestamp = 0;
    uint16_t category = 0;
    uint16_t type = 0;
    std::optional<Dictionary> payload;
    DeliveryReply done;
    size_t size = 0;  // on the wire, approximately

    void measure() {
        constexpr size_t kRest = 128;  // header and plain arguments
        size = kRest + (sessionInfo ? wireSize(*sessionInfo) : 0) + (payload ? wireSize(*payload) : 0);
    }
};

class BusClientConnection : public ClientConnection,
                            public SandboxExtensionInterface,
                            public std::enable_shared_from_this<BusClientConnection> {
  public:
    BusClientConnection(Strand strand, std::string description)
        : strand_(std::move(strand)), description_(std::move(description)) {}

    void adopt(std::shared_ptr<BusConnection> bus) { starting_ = std::move(bus); }

    void setExportedObject(std::shared_ptr<ClientSessionInterface> session) override {
        session_ = std::move(session);
    }
    void setClientFiles(std::shared_ptr<ClientFiles> files) override { files_ = std::move(files); }
    void setUser(QuotaUser user) override { user_ = std::move(user); }
    void setAdmission(Admission mayHandle) override { mayHandle_ = std::move(mayHandle); }
    void setInvalidationHandler(std::function<void()> handler) override {
        invalidationHandler_ = std::move(handler);
    }
    void setGoneHandler(std::function<void()> handler) override { goneHandler_ = std::move(handler); }
    std::string description() const override { return description_; }

    void resume() override;
    void invalidate() override;
    void sendMessageToClient(std::shared_ptr<const Dictionary> sessionInfo, double timestamp,
                             uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                             DeliveryReply done) override;
    void perform(std::function<void()> work) override;
    tl::expected<std::string, BusError> issueFileExtension(std::string path, UniqueFd file) override;

  private:
    void begin();
    void startBus();
    void exportInterfaces(BusConnection& bus);
    bool mayHandleCall();
    void resumeCalls();
    bool mayKeepInput(size_t bytes);
    void ended(const std::string& reason);
    void gone();
    std::optional<Delivery> enqueue(MessageToClient& message) TELVORA_EXCLUDES(outboxLock_);
    std::optional<MessageToClient> takeFromOutbox() TELVORA_EXCLUDES(outboxLock_);
    void drainOutbox() TELVORA_EXCLUDES(outboxLock_);
    void emptyOutbox() TELVORA_EXCLUDES(outboxLock_);
    void deliver(const MessageToClient& message);
    static tl::expected<void, std::string> write(BusConnection& bus, const MessageToClient& message);
    static void drop(const MessageToClient& message, Delivery why, const char* reason);

    const Strand strand_;
    const std::string description_;
    std::function<void()> invalidationHandler_;
    std::function<void()> goneHandler_;
    Admission mayHandle_;
    std::function<void()> resume_;
    std::shared_ptr<ClientSessionInterface> session_;
    std::shared_ptr<ClientFiles> files_;
    QuotaUser user_;

    // Used on the strand alone, once make() is through.
    std::shared_ptr<BusConnection> starting_;  // until resume()
    BusConnection* bus_ = nullptr;             // from resume() to the bus's end
    const char* unreachableReason_ = kEnded;   // when bus_ is null
    bool resumed_ = false;                     // the admission was waited for
    size_t inputBytes_ = 0;
    QuotaCharge inputRoom_;

    Mutex outboxLock_;
    std::list<MessageToClient> outbox_ TELVORA_GUARDED_BY(outboxLock_);
    size_t outboxBytes_ TELVORA_GUARDED_BY(outboxLock_) = 0;
    QuotaCharge outboxRoom_ TELVORA_GUARDED_BY(outboxLock_);
    bool ended_ TELVORA_GUARDED_BY(outboxLock_) = false;
};

// A connection that can't begin ends here: until then, no other thread has it.
void BusClientConnection::resume() {
    const bool begins = attempt("ClientConnection(resume)", [this] {
        asio::post(strand_, [self = shared_from_this()] { self->begin(); });
    });
    if (begins) return;
    ended("no memory");
    gone();
}

void BusClientConnection::begin() {
    if (starting_ && attempt("ClientConnection(begin)", [this] { startBus(); })) return;
    ended(starting_ ? "no memory" : "invalidated");  // invalidated before
    gone();
}

void BusClientConnection::startBus() {
    const std::shared_ptr<BusConnection> bus = starting_;
    exportInterfaces(*bus);
    bus_ = bus.get();
    resume_ = [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->resumeCalls();
    };
    if (mayHandle_) bus->onAdmission([this] { return mayHandleCall(); });
    // Owns this connection, since the bus keeps this handler for as long as itself. The other handlers then
    // need no memory.
    bus->onInputKept([self = shared_from_this()](size_t bytes) { return self->mayKeepInput(bytes); });
    bus->setUserTurns(user_.turns());
    bus->onUncongested([this] { drainOutbox(); });
    bus->start([this](const std::string& reason) { ended(reason); }, [this] { gone(); });
    starting_.reset();
}

void BusClientConnection::exportInterfaces(BusConnection& bus) {
    exportMethods<kClientSessionMethods>(bus, [this](const auto& run) {
        const LogScope onBehalfOfUser(user_.logAdmission());
        const BlockingShare::Scope onShare(user_.blockingShare());
        return run(*session_);
    });
    exportMethods<kSandboxExtensionMethods>(bus, [this](const auto& run) {
        const LogScope onBehalfOfUser(user_.logAdmission());
        return run(*this);
    });
}

bool BusClientConnection::mayHandleCall() {
    return mayHandle_(std::exchange(resumed_, false), resume_);
}

void BusClientConnection::resumeCalls() {
    asio::post(strand_, [self = shared_from_this()] {
        self->resumed_ = true;
        if (self->bus_ != nullptr) self->bus_->admit();
    });
}

bool BusClientConnection::mayKeepInput(size_t bytes) {
    const size_t before = std::exchange(inputBytes_, bytes);
    if (bytes > before) return user_.take(Quota::inputBytes, bytes - before, inputRoom_);
    inputRoom_.resize(bytes);
    return true;
}

void BusClientConnection::perform(std::function<void()> work) {
    asio::dispatch(strand_, [self = shared_from_this(), work = std::move(work)] {
        const LogScope onBehalfOfUser(self->user_.logAdmission());
        const BlockingShare::Scope onShare(self->user_.blockingShare());
        work();
    });
}

tl::expected<std::string, BusError> BusClientConnection::issueFileExtension(std::string path, UniqueFd file) {
    if (!files_) return tl::unexpected(BusError{kBusErrorNotSupported, "No file extensions are issued here"});
    return files_->issueFileExtension(std::move(path), std::move(file)).map_error([](std::string error) {
        return BusError{kBusErrorInvalidArgs, std::move(error)};
    });
}

void BusClientConnection::invalidate() {
    asio::post(strand_, [self = shared_from_this()] {
        if (self->bus_ != nullptr) return self->bus_->close("invalidated");
        self->starting_.reset();
    });
}

// The session sends its last messages while it is destroyed, so the outbox is emptied once more after that. A
// client that has left misses them, and the log gives the reason.
void BusClientConnection::ended(const std::string& reason) {
    TELVORA_LOG(kLogDebug, "ClientConnection(ended): %s: %s", description_.c_str(), reason.c_str());
    const LogScope onBehalfOfUser(user_.logAdmission());
    if (bus_ != nullptr && !bus_->isOpen()) {
        bus_ = nullptr;
        unreachableReason_ = "the client has left, which is no error where it has ended its session";
    }
    session_.reset();
    files_.reset();
    if (const auto handler = std::exchange(invalidationHandler_, nullptr))
        attempt("ClientConnection(ended)", handler);
    attempt("ClientConnection(ended)", [this] { emptyOutbox(); });
    bus_ = nullptr;
    starting_.reset();
    {
        const MutexLock lock(outboxLock_);
        ended_ = true;
    }
    attempt("ClientConnection(ended)", [this] { emptyOutbox(); });
}

void BusClientConnection::gone() {
    if (const auto handler = std::exchange(goneHandler_, nullptr)) handler();
}

// --- Calls to the client ---

void BusClientConnection::sendMessageToClient(std::shared_ptr<const Dictionary> sessionInfo, double timestamp,
                                              uint16_t category, uint16_t type,
                                              std::optional<Dictionary> payload, DeliveryReply done) {
    MessageToClient message{std::move(sessionInfo), timestamp,      category, type,
                            std::move(payload),     std::move(done)};
    message.measure();
    if (const auto refused = enqueue(message)) {
        const bool ended = *refused == Delivery::unreachable;
        return drop(message, *refused, ended ? kEnded : "too many messages are waiting");
    }
    // A message that the client's own operation causes is sent before the operation's answer.
    if (strand_.running_in_this_thread()) drainOutbox();
}

// All messages pass the outbox, also those from the strand, so that they keep their order. Takes the message;
// otherwise returns the reason and leaves the message.
std::optional<Delivery> BusClientConnection::enqueue(MessageToClient& message) {
    const size_t size = message.size;
    const MutexLock lock(outboxLock_);
    if (ended_) return Delivery::unreachable;
    if (outbox_.size() >= kMaxOutboxMessages || outboxBytes_ + size > kMaxOutboxBytes)
        return Delivery::tooMuchUnread;
    if (!user_.take(Quota::unreadBytes, size, outboxRoom_)) return Delivery::overQuota;
    if (outbox_.empty()) asio::post(strand_, [self = shared_from_this()] { self->drainOutbox(); });
    outbox_.push_back(std::move(message));
    outboxBytes_ += size;
    return std::nullopt;
}

std::optional<MessageToClient> BusClientConnection::takeFromOutbox() {
    const MutexLock lock(outboxLock_);
    if (outbox_.empty()) return std::nullopt;
    MessageToClient message = std::move(outbox_.front());
    outbox_.pop_front();
    outboxBytes_ -= message.size;
    outboxRoom_.resize(outboxBytes_);
    return message;
}

// Sends until the output is congested; the bus calls this again once it is not.
void BusClientConnection::drainOutbox() {
    const LogScope onBehalfOfUser(user_.logAdmission());
    while (bus_ != nullptr && !bus_->outputCongested()) {
        const auto message = takeFromOutbox();
        if (!message) return;
        deliver(*message);
    }
}

// At the end: the client reads all messages that the bus has taken by then.
void BusClientConnection::emptyOutbox() {
    while (const auto message = takeFromOutbox())
        deliver(*message);
}

void BusClientConnection::deliver(const MessageToClient& message) {
    if (bus_ == nullptr) return drop(message, Delivery::unreachable, unreachableReason_);
    if (const auto written = write(*bus_, message); !written)
        return drop(message, Delivery::unreachable, written.error().c_str());
    if (message.done) message.done(Delivery::handedOver);
}

tl::expected<void, std::string> BusClientConnection::write(BusConnection& bus,
                                                           const MessageToClient& message) {
    const auto sent = bus.sendOneWay(destinationOf(kSendMessageToClient), [&message](WireWriter& body) {
        return writeArguments(body, kSendMessageToClient, message.sessionInfo.get(), message.timestamp,
                              message.category, message.type, message.payload);
    });
    return sent.map_error([](BusSendFailure failure) -> std::string {
        return failure == BusSendFailure::kEnded ? kEnded : "the message can't be written";
    });
}

void BusClientConnection::drop(const MessageToClient& message, Delivery why, const char* reason) {
    TELVORA_LOG(kLogError, "sendMessageWithDictionary: Failed to get remote object proxy: %s", reason);
    if (message.done) message.done(why);
}

}  // namespace

std::shared_ptr<ClientConnection> ClientConnection::make(Strand strand, UniqueFd socket,
                                                         std::string description, BusLimits limits) {
    auto connection = std::make_shared<BusClientConnection>(strand, std::move(description));
    connection->adopt(BusConnection::make(strand, std::move(socket), BusRole::kServer, limits));
    return connection;
}

}  // namespace telvora
