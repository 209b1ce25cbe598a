// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <tl/expected.hpp>

#include "bus/bus_query.h"
#include "command.h"
#include "plist/property_list.h"

namespace telvora::ctl {

struct Failure {
    Status status;
    std::string reason;
};

// The description of the device (config/device_description.h): the daemon's answer, or, if the daemon can't
// be reached, that of its files, if the caller may read them. Root becomes the owner of the state directory.
tl::expected<Dictionary, Failure> describedDevice(const CommonOptions& common);

// The failure of a question to the daemon's status socket.
Failure failureOf(const BusQueryFailure& failure);

}  // namespace telvora::ctl
