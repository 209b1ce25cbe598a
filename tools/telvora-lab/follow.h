// SPDX-License-Identifier: Apache-2.0
//
// Follower: prints each arrival as it comes, on a thread of its own. A slow reader of the output loses lines,
// and the output then says how many reports are missing; it delays no server.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>

#include "plist/property_list.h"
#include "telvora-lab/feed.h"

namespace telvora::lab {

// The lines about one record of a feed. As JSON: a line for each report of a message, {"at", "path",
// "status", "clientId", "event"}; the record itself if it is no message. For people: a line for the message,
// and one for each report, with long values cut.
std::string describeRecord(std::string_view record, bool json);

class Follower {
  public:
    // Prints to `out`, which no one else may use until the destructor returns. Both must outlive the object.
    // `whenLost` is called once, on the object's thread, if `out` can't be written any more.
    Follower(Feed& feed, std::ostream& out, bool json, std::function<void()> whenLost);
    // Closes the feed and returns when all its records are printed.
    ~Follower();
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

  private:
    void run();

    Feed& feed_;
    std::ostream& out_;
    const bool json_;
    const std::function<void()> whenLost_;
    std::thread thread_;
};

}  // namespace telvora::lab
