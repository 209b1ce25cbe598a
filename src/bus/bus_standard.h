// SPDX-License-Identifier: Apache-2.0
//
// The interfaces that every D-Bus object has (D-Bus Specification, "Standard Interfaces"). Objects here have
// no properties. Thread-safe: no shared state.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "wire/wire_message.h"

namespace telvora {

enum class StandardMethod {
    none,
    ping,           // of org.freedesktop.DBus.Peer
    machineId,      // likewise; refused, since clients must not learn the device's identity
    introspect,     // of org.freedesktop.DBus.Introspectable
    property,       // Get and Set of org.freedesktop.DBus.Properties
    allProperties,  // GetAll of it
    hello,          // of a message bus: tools that expect one on every socket begin with this call
};

// The standard method that is called, with the signature that it has.
StandardMethod standardMethodOf(const MessageView& call);

// The element of `object` below `parent`, if the object is below it: "b" for "/a/b/c" and "/a". Empty
// otherwise.
std::string_view childNode(std::string_view object, std::string_view parent);

// The document of an object with these elements "interface" and these children.
std::string introspectionDocument(const std::string& interfaces,
                                  const std::set<std::string, std::less<>>& children);

}  // namespace telvora
