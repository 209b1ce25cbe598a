// SPDX-License-Identifier: Apache-2.0
#include "dashboard/dashboard_backend.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "util/log.h"

namespace telvora {

namespace {

constexpr std::chrono::milliseconds kDefaultPeriod{500};
constexpr int64_t kLongestPeriod = int64_t{24} * 60 * 60 * 1000;  // milliseconds; times must not overflow

// The integer value of the number under `key`.
std::optional<int64_t> number(const Dictionary& profile, std::string_view key) {
    const PropertyList* value = profile.find(key);
    return value != nullptr && value->isNumber() ? value->wrappedInteger() : std::nullopt;
}

std::optional<std::string> text(const Dictionary& profile, std::string_view key) {
    const std::string* value = profile.string(key);
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

bool hasCollector(const Dictionary* profile) {
    if (profile == nullptr || profile->string("ip") == nullptr) {
        TELVORA_LOG(kLogError, "DashboardBackend(initWithName): can't resolve server IP");
        return false;
    }
    if (!number(*profile, "port")) {
        TELVORA_LOG(kLogError, "DashboardBackend(initWithName): can't resolve server port");
        return false;
    }
    return true;
}

}  // namespace

std::shared_ptr<DashboardBackend> DashboardBackend::make(const BackendServices& services, std::string name,
                                                         BackendProfile profile, SharedIdentity identity) {
    const Dictionary* content = profile ? profile->getIf<Dictionary>() : nullptr;
    const auto serverIP = content != nullptr ? text(*content, "ip") : std::nullopt;
    const int64_t serverPort = content != nullptr ? number(*content, "port").value_or(0) : 0;
    return make(services, std::move(name), std::move(profile), serverIP, static_cast<uint16_t>(serverPort),
                std::move(identity));
}

std::shared_ptr<DashboardBackend> DashboardBackend::make(const BackendServices& services, std::string name,
                                                         std::optional<std::string> serverIP,
                                                         uint16_t serverPort, SharedIdentity identity) {
    if (!serverIP) return nullptr;
    return make(services, std::move(name), nullptr, serverIP, serverPort, std::move(identity));
}

std::shared_ptr<DashboardBackend> DashboardBackend::make(const BackendServices& services, std::string name,
                                                         BackendProfile profile,
                                                         const std::optional<std::string>& serverIP,
                                                         uint16_t serverPort, SharedIdentity identity) {
    const Dictionary* content = profile ? profile->getIf<Dictionary>() : nullptr;
    if (profile && !hasCollector(content)) return nullptr;
    auto transport = DashboardTransport::make(services.makeNetworkQueue());
    if (!transport) return nullptr;

    std::chrono::milliseconds period = kDefaultPeriod;
    if (profile) {
        if (content->contains("reliable")) {
            transport->useReliableUDP();
            const auto value = content->find("reliable")->integerValue();
            if (value) period = std::chrono::milliseconds(std::clamp<int64_t>(*value, 1, kLongestPeriod));
        }
    } else if (!serverIP) {
        TELVORA_LOG(kLogError, "DashboardBackend(initWithName): initWitName with all null params.");
        return nullptr;
    } else {
        transport->useReliableUDP();
    }
    if (!transport->connect(*serverIP, serverPort) || !transport->start(period)) return nullptr;

    std::shared_ptr<DashboardBackend> backend(new DashboardBackend(
        services, std::move(name), std::move(profile), std::move(identity), std::move(transport)));
    backend->takeProfile();
    return backend;
}

void DashboardBackend::takeProfile() {
    const Dictionary* profile = profileDictionary();
    usingProfile_ = profile != nullptr;
    if (!usingProfile_) return;
    displayURL_ = profile->string("display_url");
    postURL_ = text(*profile, "post_url");
}

std::optional<std::string> DashboardBackend::sendMessage(const std::optional<Dictionary>& payload,
                                                         TimeValue timestamp, uint16_t method,
                                                         uint16_t respCode, EventID eventID) {
    const std::unique_ptr<DashboardDatagram> datagram(new (std::nothrow) DashboardDatagram);
    if (!datagram) {
        TELVORA_LOG(kLogError, "DashboardBackend(sendMessage): can't malloc.");
        return std::nullopt;
    }
    const DashboardFields fields{.version = identity_->selfVersion.components[0],
                                 .componentType = static_cast<uint8_t>(identity_->compType),
                                 .timestamp = timestamp,
                                 .sessionID = identity_->sessionID,
                                 .clientVersion = identity_->clientVersion,
                                 .method = method,
                                 .respCode = respCode,
                                 .deviceID = identity_->udid,
                                 .eventNumber = static_cast<uint16_t>(eventID),
                                 .reliable = transport_->reliableUDP(),
                                 .fromProfile = usingProfile_};
    fillDashboardDatagram(*datagram, fields, payload.value_or(Dictionary()));
    std::string line = renderDashboardDatagram(*datagram);
    transport_->send(std::string(datagram->bytes()), fields.eventNumber);
    return line;
}

void DashboardBackend::cleanup() {
    transport_->cleanup();
}

void DashboardBackend::cleanup(std::function<void()> whenClosed) {
    transport_->cleanup(std::move(whenClosed));
}

}  // namespace telvora
