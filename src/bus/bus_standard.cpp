// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_standard.h"

#include <array>

#include "bus/bus_interface.h"

namespace telvora {

namespace {

struct StandardEntry {
    std::string_view interface;
    std::string_view member;
    std::string_view signature;
    StandardMethod method;
};

constexpr std::array<StandardEntry, 7> kStandardMethods{{
    {"org.freedesktop.DBus.Peer", "Ping", "", StandardMethod::ping},
    {"org.freedesktop.DBus.Peer", "GetMachineId", "", StandardMethod::machineId},
    {"org.freedesktop.DBus.Introspectable", "Introspect", "", StandardMethod::introspect},
    {"org.freedesktop.DBus.Properties", "Get", "ss", StandardMethod::property},
    {"org.freedesktop.DBus.Properties", "Set", "ssv", StandardMethod::property},
    {"org.freedesktop.DBus.Properties", "GetAll", "s", StandardMethod::allProperties},
    {"org.freedesktop.DBus", "Hello", "", StandardMethod::hello},
}};

const std::string& standardIntrospection() {
    static const std::string text =
        BusInterface("org.freedesktop.DBus.Peer",
                     {{"Ping", {}, {}}, {"GetMachineId", {}, {{"machine_uuid", "s"}}}})
            .introspection() +
        BusInterface("org.freedesktop.DBus.Introspectable", {{"Introspect", {}, {{"data", "s"}}}})
            .introspection() +
        BusInterface("org.freedesktop.DBus.Properties",
                     {{"Get", {{"interface_name", "s"}, {"property_name", "s"}}, {{"value", "v"}}},
                      {"GetAll", {{"interface_name", "s"}}, {{"props", "a{sv}"}}},
                      {"Set", {{"interface_name", "s"}, {"property_name", "s"}, {"value", "v"}}, {}}})
            .introspection();
    return text;
}

}  // namespace

StandardMethod standardMethodOf(const MessageView& call) {
    for (const StandardEntry& entry : kStandardMethods) {
        if (entry.member == call.member && entry.signature == call.signature &&
            (call.interface.empty() || entry.interface == call.interface)) {
            return entry.method;
        }
    }
    return StandardMethod::none;
}

std::string_view childNode(std::string_view object, std::string_view parent) {
    if (parent == "/") parent = "";
    if (object.size() <= parent.size() + 1 || object.substr(0, parent.size()) != parent ||
        object[parent.size()] != '/') {
        return {};
    }
    const std::string_view rest = object.substr(parent.size() + 1);
    return rest.substr(0, rest.find('/'));
}

std::string introspectionDocument(const std::string& interfaces,
                                  const std::set<std::string, std::less<>>& children) {
    std::string text =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
        "\"https://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node>\n";
    if (!interfaces.empty()) text += standardIntrospection() + interfaces;
    for (const std::string& child : children)
        text += " <node name=\"" + child + "\"/>\n";
    return text + "</node>\n";
}

}  // namespace telvora
