// SPDX-License-Identifier: Apache-2.0
//
// Puts the decisions of a backend into words, with the values that they were taken from.
#pragma once

#include <ostream>
#include <string>

#include "policy/decision_trace.h"
#include "telvora-bag/trial.h"

namespace telvora::bag {

class Narrator final : public DecisionTrace {
  public:
    // Prints to `out` a line for each decision about a session in these circumstances.
    Narrator(std::ostream& out, const Circumstances& circumstances)
        : out_(out), circumstances_(circumstances) {}

    // The device that the names of devices are compared with.
    void setIdentity(const DeviceIdentity& identity) { identity_ = &identity; }
    // The entries that the next decisions are about; they must outlive them.
    void begin(const Array& clients) { clients_ = &clients; }

    void decided(const std::string& backend, Decision decision, const Dictionary* subject,
                 const ReportingPolicy& soFar) override;
    void filtered(const std::string&, const std::string&, const EventFilter&) override {}
    void leaving(const std::string&, std::span<const Dictionary>) override {}

  private:
    std::string reasonFor(Decision decision, const Dictionary& subject, const ReportingPolicy& soFar) const;
    std::string session() const;
    std::string list(const Dictionary& subject, std::string_view key) const;

    std::ostream& out_;
    const Circumstances& circumstances_;
    const DeviceIdentity* identity_ = nullptr;
    const Array* clients_ = nullptr;
};

}  // namespace telvora::bag
