// SPDX-License-Identifier: Apache-2.0
//
// The trees of sessions that the reports describe: a session of a hierarchy reports under the dotted IDs of
// its ancestors and its own, top first.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "plist/property_list.h"

namespace telvora::lab {

struct SessionNode {
    std::string sessionID;  // the session's own, without dots
    size_t events = 0;      // 0: known from its descendants' reports alone
    std::vector<SessionNode> children;
};

// The trees. Each level is in the order of first appearance. A session that was reported under several
// parents is below the last one. Events without a "_sessionID" are ignored; a parent that would form a circle
// is left out.
std::vector<SessionNode> sessionTree(const std::vector<Dictionary>& events);

// The trees as values: dictionaries with "sessionID", "events" and "children".
Array describeTree(const std::vector<SessionNode>& nodes);

}  // namespace telvora::lab
