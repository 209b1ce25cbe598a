// SPDX-License-Identifier: Apache-2.0
#include "link/link_watch.h"

#include <algorithm>
#include <asio/post.hpp>
#include <utility>

#include "bus/connect_socket.h"
#include "util/log.h"
#include "wire/wire_writer.h"

namespace telvora {

namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

// Of one message of the bus, in bytes. The properties of NetworkManager that change together are smaller.
constexpr size_t kMaxMessage = size_t{256} << 10;

// NMMetered: 1 yes, 3 guessed yes.
bool readMetered(WireReader& value) {
    uint32_t metered = 0;
    return value.read(metered) && (metered == 1 || metered == 3);
}

bool readOnBattery(WireReader& value) {
    bool onBattery = false;
    return value.read(onBattery) && onBattery;
}

MessageView methodOf(const char* service, const char* path, const char* interface, const char* member) {
    MessageView to;
    to.type = MessageType::methodCall;
    to.serial = 1;  // the connection sets it
    to.destination = service;
    to.path = path;
    to.interface = interface;
    to.member = member;
    return to;
}

}  // namespace

std::string describe(const LinkState& state) {
    const char* const both = state.metered && state.battery ? " and " : "";
    return std::string(state.metered ? "the link is metered" : "") + both +
           (state.battery ? "the device runs on battery" : "");
}

// The answer to a call; about the value of `source`, if it is not null.
class LinkWatch::Answer final : public BusReplyTarget {
  public:
    Answer(std::shared_ptr<LinkWatch> watch, Source* source) : watch_(std::move(watch)), source_(source) {}
    void answered(BusMessage& reply) override { watch_->answered(reply, source_); }

  private:
    const std::shared_ptr<LinkWatch> watch_;
    Source* const source_;
};

std::shared_ptr<LinkWatch> LinkWatch::start(Strand strand, Options options, Listener listener) {
    std::shared_ptr<LinkWatch> watch(
        new LinkWatch(std::move(strand), std::move(options), std::move(listener)));
    asio::post(watch->strand_, [watch] { watch->connect(); });
    return watch;
}

LinkWatch::LinkWatch(Strand strand, Options options, Listener listener)
    : strand_(std::move(strand)),
      options_(std::move(options)),
      listener_(std::move(listener)),
      retry_(strand_),
      pause_(options_.firstPause) {
    if (options_.watched.metered) {
        sources_.push_back({"org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager", "Metered",
                            readMetered, &LinkState::metered, asio::steady_timer(strand_)});
    }
    if (options_.watched.battery) {
        sources_.push_back({"org.freedesktop.UPower", "/org/freedesktop/UPower", "OnBattery", readOnBattery,
                            &LinkState::battery, asio::steady_timer(strand_)});
    }
}

// Signals are subscribed to before the values are asked for: no change is missed in between.
void LinkWatch::connect() {
    auto socket = connectToSocket(options_.busPath, FullBacklog::kFails);
    if (!socket) return lost(socket.error());
    const auto self = shared_from_this();
    const auto bus = BusConnection::make(strand_, std::move(*socket), BusRole::kClient,
                                         {.messageSize = kMaxMessage, .descriptors = false});
    bus->onSignal([self](BusMessage& signal) { self->onSignal(signal); });
    bus_ = bus.get();
    bus->start([self](const std::string& reason) { self->lost(reason); });
    call(methodOf(kBus, kBusPath, kBus, "Hello"), {}, nullptr);
    for (Source& source : sources_) {
        subscribe(source);
        ask(source);
    }
}

void LinkWatch::subscribe(const Source& source) {
    const std::string service = source.service;
    const MessageView addMatch = methodOf(kBus, kBusPath, kBus, "AddMatch");
    call(addMatch,
         {"type='signal',sender='" + service + "',path='" + source.path + "',interface='" + kProperties +
          "',member='PropertiesChanged',arg0='" + service + "'"},
         nullptr);
    call(addMatch,
         {std::string("type='signal',sender='") + kBus + "',interface='" + kBus +
          "',member='NameOwnerChanged',arg0='" + service + "'"},
         nullptr);
}

void LinkWatch::ask(Source& source) {
    if (bus_ == nullptr) return;
    source.changed = source.asked;
    if (std::exchange(source.asked, true)) return;
    call(methodOf(source.service, source.path, kProperties, "Get"), {source.service, source.property},
         &source);
    source.timer.expires_after(options_.answerTime);
    source.timer.async_wait([self = shared_from_this(), &source](asio::error_code cancelled) {
        if (!cancelled) self->expired(source);
    });
}

void LinkWatch::call(const MessageView& to, std::initializer_list<std::string_view> arguments,
                     Source* source) {
    MessageView view = to;
    view.signature = std::string_view("ss").substr(0, arguments.size());
    std::string header, body;
    WireWriter(header, view).finish(kMaxSentMessage);
    WireWriter writer(body);
    for (const std::string_view argument : arguments)
        writer.append(argument);
    writer.finish(kMaxSentMessage);
    std::unique_ptr<BusReplyTarget> target = std::make_unique<Answer>(shared_from_this(), source);
    bus_->call(header, body, target);
}

void LinkWatch::answered(BusMessage& reply, Source* source) {
    const auto error = reply.error();
    if (source == nullptr) {
        // Without its name on the bus, or without the signals, a connection is of no use.
        if (error && bus_ != nullptr) bus_->close(error->name);
        return;
    }
    source->asked = false;
    source->timer.cancel();
    source->value = !error && reply.reader().enter() && source->read(reply.reader());
    pause_ = options_.firstPause;
    lossLogged_ = false;
    report();
    if (source->changed) ask(*source);
}

void LinkWatch::expired(Source& source) {
    // An answer may have come, and another question, after the timer had expired.
    if (!source.asked || source.timer.expiry() > std::chrono::steady_clock::now()) return;
    source.asked = false;
    source.value = false;
    report();
}

// The first argument of both signals is the name of the service, or of its interface.
void LinkWatch::onSignal(BusMessage& signal) {
    std::string_view name;
    if (!signal.reader().read(name)) return;
    for (Source& source : sources_) {
        if (name == source.service) ask(source);
    }
}

void LinkWatch::lost(const std::string& reason) {
    bus_ = nullptr;
    for (Source& source : sources_) {
        source.timer.cancel();
        source.asked = source.changed = false;
        source.value = false;
    }
    if (!std::exchange(lossLogged_, true))
        TELVORA_LOG(kLogWarning, "LinkWatch: no system bus: %s", reason.c_str());
    report();
    retry_.expires_after(pause_);
    pause_ = std::min(2 * pause_, options_.longestPause);
    retry_.async_wait([self = shared_from_this()](asio::error_code cancelled) {
        if (!cancelled) self->connect();
    });
}

void LinkWatch::report() {
    LinkState state;
    for (const Source& source : sources_) {
        if (!source.value) return;
        state.*source.target = *source.value;
    }
    if (std::exchange(reported_, true) && state == state_.load()) return;
    state_ = state;
    listener_(state);
}

}  // namespace telvora
