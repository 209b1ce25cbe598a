// SPDX-License-Identifier: Apache-2.0
//
// PageRequests: the answers to the requests of the page's script, all in JSON. A request that fails has
// status 400 and the answer {"error": text}.
//
//     GET  /lab/about           constant: "run", "addresses", "clientTypes", "environments", "faults"
//     GET  /lab/state           now: "messages", "reports", "problems", "sessions", "faults", "bags"
//     GET  /lab/feed?from=N     "run", "first", "reportsBefore", "records" (feed.h); waits for a record
//     POST /lab/fault           {"server", "bag", "fault"}: switches a fault
//     GET  /lab/bag?name=NAME   "text", "findings", "signed": whether the laboratory signs it
//     POST /lab/bag             {"name", "text"}: replaces a bag; "findings"
//     POST /lab/explain         {...} (scenario_json.h): explains the bag for a session; "text"
//
// Callable from any thread.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <tl/expected.hpp>

#include "telvora-lab/laboratory.h"

namespace telvora::lab {

// Writes a bag to the disk, or fails with a reason.
using BagKeeper =
    std::function<tl::expected<void, std::string>(const std::string& name, const Dictionary& bag)>;

class PageRequests {
  public:
    // Laboratory and feed must outlive the object.
    PageRequests(Laboratory& laboratory, const Feed& feed, BagKeeper keepBag);

    ServerResponse answer(const ServerRequest& request);

  private:
    using Answer = tl::expected<Dictionary, std::string>;

    Dictionary about() const;
    Dictionary state() const;
    ServerResponse records(const ServerRequest& request) const;
    Answer setFault(const Dictionary& body);
    Answer bag(const ServerRequest& request) const;
    Answer replaceBag(const Dictionary& body);
    Answer explain(const Dictionary& body);

    Laboratory& laboratory_;
    const Feed& feed_;
    const BagKeeper keepBag_;
    const std::string run_;   // differs from run to run
    std::mutex explanation_;  // explainBag() is not reentrant
};

}  // namespace telvora::lab
