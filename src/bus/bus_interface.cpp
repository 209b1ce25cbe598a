// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_interface.h"

#include <algorithm>

namespace telvora {

namespace {

std::string signatureOf(const std::vector<BusArgument>& arguments) {
    std::string signature;
    for (const BusArgument& argument : arguments)
        signature += argument.type;
    return signature;
}

void describe(const std::vector<BusArgument>& arguments, const char* direction, std::string& xml) {
    for (const BusArgument& argument : arguments) {
        xml += "   <arg type=\"" + argument.type + "\"";
        if (!argument.name.empty()) xml += " name=\"" + argument.name + "\"";
        xml += std::string(" direction=\"") + direction + "\"/>\n";
    }
}

std::string describe(const std::string& name, const std::vector<BusMethod>& methods) {
    std::string xml = " <interface name=\"" + name + "\">\n";
    for (const BusMethod& method : methods) {
        xml += "  <method name=\"" + method.name + "\">\n";
        describe(method.in, "in", xml);
        describe(method.out, "out", xml);
        xml += "  </method>\n";
    }
    return xml + " </interface>\n";
}

}  // namespace

BusInterface::BusInterface(std::string name, std::vector<BusMethod> methods)
    : name_(std::move(name)), methods_(std::move(methods)), introspection_(describe(name_, methods_)) {
    for (const BusMethod& method : methods_)
        signatures_.push_back({signatureOf(method.in), signatureOf(method.out)});
}

std::optional<size_t> BusInterface::find(std::string_view method) const {
    const auto found = std::find_if(methods_.begin(), methods_.end(), [method](const BusMethod& candidate) {
        return candidate.name == method;
    });
    if (found == methods_.end()) return std::nullopt;
    return static_cast<size_t>(found - methods_.begin());
}

}  // namespace telvora
