// SPDX-License-Identifier: Apache-2.0
//
// Describes the decisions of a backend as text, with the values that they depend on.
#pragma once

#include <ostream>
#include <string>

#include "policy/decision_trace.h"
#include "telvora-bag/scenario.h"

namespace telvora::bag {

class DecisionPrinter final : public DecisionTrace {
  public:
    // Prints to `out` one line for each decision about the session. Both arguments must outlive the object.
    DecisionPrinter(std::ostream& out, const Scenario& scenario) : out_(out), scenario_(scenario) {}

    // The device whose name and product type the lines contain. Must outlive the object.
    void setIdentity(const DeviceIdentity& identity) { identity_ = &identity; }
    // The entries that the next decisions refer to. They must outlive those decisions.
    void begin(const Array& clients) { clients_ = &clients; }

    // The text of a decision, in one line: "clients[0]: ...".
    std::string lineOf(Decision decision, const Dictionary* subject, const ReportingPolicy& soFar) const;

    void decided(const std::string& backend, Decision decision, const Dictionary* subject,
                 const ReportingPolicy& soFar) override;
    void filtered(const std::string&, const std::string&, const EventFilter&) override {}
    void leaving(const std::string&, std::span<const Dictionary>) override {}

  private:
    std::string reasonFor(Decision decision, const Dictionary& subject, const ReportingPolicy& soFar) const;
    std::string session() const;
    std::string list(const Dictionary& subject, std::string_view key) const;

    std::ostream& out_;
    const Scenario& scenario_;
    const DeviceIdentity* identity_ = nullptr;
    const Array* clients_ = nullptr;
};

}  // namespace telvora::bag
