// SPDX-License-Identifier: Apache-2.0
//
// BackendRun: one real backend of a simulated session, to which reports are sent. The tool observes the
// outcome of reports; it has no rules of its own.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "policy/decision_trace.h"
#include "telvora-bag/dry_run.h"

namespace telvora::bag {

class BackendRun final : private DecisionTrace {
  public:
    // `profile`: the section's value under `name`. Both need to live only until the constructor returns.
    BackendRun(const std::string& name, const PropertyList& profile, const Scenario& scenario);

    // One post as the server receives it. Sizes are those of the body, in bytes.
    struct Post {
        const std::string& url;
        std::span<const Dictionary> events;
        size_t json = 0;
        size_t sent = 0;
    };
    // Called with each post, which the server accepts. May be empty.
    std::function<void(const Post& post)> onPost;
    // Called for each key of a report that a filter removes or hashes. May be empty.
    std::function<void(const std::string& key, const EventFilter& filter)> onFiltered;

    // Null if the daemon would not make the backend.
    const TelvoraBackend* backend() const { return backend_.get(); }
    // Whether all reports go to the device's metrics adaptor. A dry run has no adaptor.
    bool isHandedOn() const { return handedOn_; }

    // Submits one report as a session does, one second after the previous one.
    void send(uint16_t category, uint16_t type, const std::optional<Dictionary>& payload = {},
              SendFlag flag = {});
    void flush();
    ReportTally tally() const { return backend_ ? backend_->reports().tally() : ReportTally(); }

  private:
    void decided(const std::string&, Decision, const Dictionary*, const ReportingPolicy&) override {}
    void filtered(const std::string& backend, const std::string& key, const EventFilter& filter) override;
    void leaving(const std::string& backend, std::span<const Dictionary> events) override;
    void posted(const HttpRequest& request);

    std::vector<Dictionary> leaving_;
    DryRun dryRun_;
    const std::shared_ptr<TelvoraBackend> backend_;
    const bool handedOn_;
};

// The reason of a loss, as text for people.
std::string reasonOf(ReportOutcome place);

}  // namespace telvora::bag
