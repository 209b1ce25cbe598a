// SPDX-License-Identifier: Apache-2.0
//
// JSON (RFC 8259) output: data as base64, a date as seconds since 1970, a real that JSON can't represent as
// -1.
#pragma once

#include <optional>
#include <string>

#include "client/client_session.h"
#include "plist/property_list.h"

namespace telvora::ctl {

// The value as JSON without line feeds.
std::string toJson(const PropertyList& value);

// Prints {"name": value} lines to standard output, each in one write. An absent value is null. Thread-safe.
void printLine(const char* name, const std::optional<std::string>& value);
void printLine(const char* name, const ReportingStates& states);
void printLine(const char* name, const FlushAnswer& answer);
void printLine(const char* name, const AggregatedMessage& message);

}  // namespace telvora::ctl
