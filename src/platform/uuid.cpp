// SPDX-License-Identifier: Apache-2.0
#include "platform/uuid.h"

#include <cstdlib>

#include "util/hexadecimal.h"
#include "util/log.h"
#include "util/random.h"

namespace telvora {

std::array<uint8_t, 16> randomUuidBytes() {
    auto bytes = randomBytes<16>();
    if (!bytes) {
        // Repeated identifiers would mix up people's reports.
        TELVORA_LOG(kLogError, "randomId: The kernel gives no random numbers");
        std::abort();
    }
    (*bytes)[6] = static_cast<uint8_t>(((*bytes)[6] & 0x0f) | 0x40);  // version 4
    (*bytes)[8] = static_cast<uint8_t>(((*bytes)[8] & 0x3f) | 0x80);  // the variant of RFC 4122
    return *bytes;
}

std::string randomUuidString() {
    std::string text;
    for (const uint8_t byte : randomUuidBytes()) {
        if (text.size() == 8 || text.size() == 13 || text.size() == 18 || text.size() == 23) text += '-';
        appendHex(text, static_cast<char>(byte), kUpperHexDigits);
    }
    return text;
}

double uniformRandom48() {
    // Bytes 6 and 8 of a UUID hold its version and variant; the six bytes before them are random.
    uint64_t bits = 0;
    const auto bytes = randomUuidBytes();
    for (size_t i = 0; i < 6; ++i)
        bits = bits << 8 | bytes[i];
    return static_cast<double>(bits) * 0x1p-48;
}

}  // namespace telvora
