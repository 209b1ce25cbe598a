// SPDX-License-Identifier: Apache-2.0
//
// The steps from the entitlement to the section of the bag, by the findings of the daemon, or by those that
// this process makes in the daemon's directories.
#pragma once

#include <optional>
#include <string>

#include "access/peer.h"
#include "doctor_report.h"
#include "plist/property_list.h"

namespace telvora::ctl {

struct DoctorFacts {
    Peer process;
    std::optional<int64_t> clientType;
    Dictionary findings;  // com.zandor.telvorad.Status.xml
    Dictionary status;    // of the daemon; empty if it did not answer
    bool fromDaemon = false;
    bool hasSettings = false;  // the settings among the findings count
};

// The findings that this process can make by itself. Sets `hasSettings` if it may read the settings.
void findLocally(DoctorFacts& facts);

// The remedy of a request to a bag server or a reporting server that had no answer, by the reason.
const char* remedyWithoutAnswer(const std::string& reason);

void examineConfiguration(DoctorReport& report, const DoctorFacts& facts);

}  // namespace telvora::ctl
