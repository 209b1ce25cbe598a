// SPDX-License-Identifier: Apache-2.0
//
// Which session stands below which, as far as the reports tell: a session of a hierarchy reports under the
// dotted IDs of its ancestors and its own, top first.
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

// The trees, each level in the order in which its sessions first appeared. A session that was known under
// several parents stands below the one that was told last. Events without a "_sessionID" don't count; a
// parent that would close a circle is left out.
std::vector<SessionNode> sessionTree(const std::vector<Dictionary>& events);

// The same as values: dictionaries with "sessionID", "events" and "children".
Array describeTree(const std::vector<SessionNode>& nodes);

}  // namespace telvora::lab
