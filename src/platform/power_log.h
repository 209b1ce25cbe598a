// SPDX-License-Identifier: Apache-2.0
//
// The power log: events that help to explain the energy use of a device.
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

    // Passes one event to the log, which adds the time. There is no result: an event may be lost. `options`
    // may be null. Never blocks; callable from any thread.
    virtual void JMLogRegisteredEvent(uint32_t category, std::string_view eventName,
                                      const Dictionary& dictionary, const Dictionary* options) = 0;
};

// A power log in the system's journal: one structured entry per event, with the fields
// (systemd.journal-fields(7))
//
//     MESSAGE, JM_EVENT              the event's name
//     JM_CATEGORY                    its category
//     JM_ENTRY_KEY                   each entry of the dictionary; KEY in upper case, other characters than
//                                    letters and digits as '_', cut to the length that the journal allows
//     PRIORITY, SYSLOG_IDENTIFIER    6, "telvorad"
//
// Numbers, dates (seconds since 1970) and booleans are text, strings and data are unchanged, arrays and
// dictionaries are XML property lists. An entry is lost, with a line at level 7, if no journal runs, if the
// journal is behind, or if the entry exceeds a datagram (about 200 kB). Options are ignored.
std::unique_ptr<PowerLog> makeJournalPowerLog(const std::string& socketPath = "/run/systemd/journal/socket");

}  // namespace telvora
