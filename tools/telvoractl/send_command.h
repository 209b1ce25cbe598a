// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "session_options.h"

namespace telvora::ctl {

// Opens a session, sends one report with the category and type of `report`, flushes and finishes; with
// `confirm`, waits for the server's answer. Prints each answer. Returns a Status.
int sendOne(const SessionOptions& options, const ReportOptions& report, std::optional<Dictionary> payload,
            bool confirm, const CommonOptions& common);

void addConfirmOption(CLI::App& command, bool& confirm);

}  // namespace telvora::ctl
