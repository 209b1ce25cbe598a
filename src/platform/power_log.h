// SPDX-License-Identifier: Apache-2.0
//
// The power log: events that help to explain where a device's energy went.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "plist/property_list.h"

namespace telvora {

class PowerLog {
  public:
    virtual ~PowerLog() = default;

    // Hands one event over; the log stamps it with the time. Whether it was taken is not told. `options` may
    // be null. Never blocks; callable from any thread.
    virtual void JMLogRegisteredEvent(uint32_t category, std::string_view eventName,
                                      const Dictionary& dictionary, const Dictionary* options) = 0;
};

// A power log in the system's journal: one structured entry per event, with the fields
// (systemd.journal-fields(7))
//
//     MESSAGE, JM_EVENT              the event's name
//     JM_CATEGORY                    its category
//     JM_ENTRY_KEY                   each entry of the dictionary; what a field's name can't hold of the key
//                                    stands as '_', lower case as upper case, and what is too long is cut
//     PRIORITY, SYSLOG_IDENTIFIER    6, "telvorad"
//
// Numbers, dates (seconds since 1970) and booleans are text, strings and data as they are, arrays and
// dictionaries XML property lists. An entry is lost, with a line at level 7, where no journal runs, where it
// is behind, and where the entry is larger than a datagram can be (some 200 kB). Options are not used.
std::unique_ptr<PowerLog> makeJournalPowerLog(const std::string& socketPath = "/run/systemd/journal/socket");

}  // namespace telvora
