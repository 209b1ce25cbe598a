// SPDX-License-Identifier: Apache-2.0
#include "platform/uuid.h"

#include <systemd/sd-id128.h>

#include <algorithm>
#include <cstdlib>

#include "util/ascii.h"
#include "util/log.h"

namespace telvora {

namespace {

sd_id128_t randomId() {
    sd_id128_t id;
    if (sd_id128_randomize(&id) < 0) {
        // Repeated identifiers would mix up people's reports.
        TELVORA_LOG(kLogError, "randomId: The kernel gives no random numbers");
        std::abort();
    }
    return id;
}

}  // namespace

std::array<uint8_t, 16> randomUuidBytes() {
    const sd_id128_t id = randomId();
    std::array<uint8_t, 16> bytes;
    std::copy(std::begin(id.bytes), std::end(id.bytes), bytes.begin());
    return bytes;
}

std::string randomUuidString() {
    char text[SD_ID128_UUID_STRING_MAX];
    return asciiUpperCase(sd_id128_to_uuid_string(randomId(), text));
}

double uniformRandom48() {
    // Bytes 6 and 8 of a UUID hold its version and variant; the six bytes before them are random.
    uint64_t bits = 0;
    const sd_id128_t id = randomId();
    for (int i = 0; i < 6; ++i)
        bits = bits << 8 | id.bytes[i];
    return static_cast<double>(bits) * 0x1p-48;
}

}  // namespace telvora
