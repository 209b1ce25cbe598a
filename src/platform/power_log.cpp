// SPDX-License-Identifier: Apache-2.0
//
// Uses the journal's native protocol (https://systemd.io/JOURNAL_NATIVE_PROTOCOL/): one datagram per entry.
// sd_journal_sendv(3) also does, but blocks its caller, and so a client, while the journal is behind.
#include "platform/power_log.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <charconv>

#include "plist/property_list_format.h"
#include "util/ascii.h"
#include "util/error_text.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

constexpr size_t kMaxFieldName = 64;

// In binary form: name, line feed, length of the value as 64 bits in little-endian order, value, line feed.
void appendField(std::string& entry, std::string_view name, std::string_view value) {
    entry.append(name).push_back('\n');
    for (unsigned shift = 0; shift < 64; shift += 8)
        entry.push_back(static_cast<char>(uint64_t{value.size()} >> shift & 0xff));
    entry.append(value).push_back('\n');
}

// Keys that map to one name become several values of one field.
std::string fieldName(std::string_view key) {
    std::string name = "JM_ENTRY_";
    for (const char c : key.substr(0, kMaxFieldName - name.size())) {
        const char upper = asciiUpperCase(c);
        const bool isPlain = (upper >= 'A' && upper <= 'Z') || (upper >= '0' && upper <= '9');
        name.push_back(isPlain ? upper : '_');
    }
    return name;
}

std::string realText(double number) {
    std::array<char, 32> text;  // enough for the shortest form of any number
    return {text.data(), std::to_chars(text.data(), text.data() + text.size(), number).ptr};
}

std::string fieldValue(const PropertyList& value) {
    if (const auto* text = value.getIf<std::string>()) return *text;
    if (const auto* data = value.getIf<Data>()) return data->bytes;
    if (const auto* boolean = value.getIf<bool>()) return *boolean ? "true" : "false";
    if (const auto* number = value.getIf<int64_t>()) return std::to_string(*number);
    if (const auto* number = value.getIf<uint64_t>()) return std::to_string(*number);
    if (const auto* number = value.getIf<double>()) return realText(*number);
    if (const auto* date = value.getIf<Date>()) return realText(date->seconds);
    return serializePropertyList(value, PropertyListFormat::xml).value_or(value.shapeDescription());
}

class JournalPowerLog final : public PowerLog {
  public:
    explicit JournalPowerLog(const std::string& socketPath)
        : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        address_.sun_family = AF_UNIX;
        socketPath.copy(address_.sun_path, sizeof address_.sun_path - 1);
        // The buffer must hold a whole entry. The kernel limits this size.
        const int bytes = 1 << 20;
        setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    }

    void JMLogRegisteredEvent(uint32_t category, std::string_view eventName, const Dictionary& dictionary,
                              const Dictionary* /*options*/) override {
        std::string entry;
        appendField(entry, "MESSAGE", eventName);
        appendField(entry, "PRIORITY", std::to_string(kLogInfo));
        appendField(entry, "SYSLOG_IDENTIFIER", "telvorad");
        appendField(entry, "JM_CATEGORY", std::to_string(category));
        appendField(entry, "JM_EVENT", eventName);
        for (const auto& [key, value] : dictionary)
            appendField(entry, fieldName(key), fieldValue(value));
        // Not connected: a restarted journal has a new socket of the same name.
        const ssize_t sent = sendto(socket_.get(), entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                    reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
        if (sent >= 0) return;
        TELVORA_LOG(kLogDebug, "JMLogRegisteredEvent: the journal took no entry: %s",
                    errorText(errno).c_str());
    }

  private:
    const UniqueFd socket_;
    sockaddr_un address_{};
};

}  // namespace

std::unique_ptr<PowerLog> makeJournalPowerLog(const std::string& socketPath) {
    return std::make_unique<JournalPowerLog>(socketPath);
}

}  // namespace telvora
