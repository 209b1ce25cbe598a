// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_interface.h"

#include <cstring>

namespace telvora {

namespace {

void describe(const std::vector<BusArgument>& arguments, std::string& signature, std::string& names) {
    for (const BusArgument& argument : arguments) {
        signature += argument.type;
        names += argument.name;
        names += '\0';
    }
}

// sd-bus asks that the unused parts of an entry be zero, which an initializer does not promise.
sd_bus_vtable zeroedEntry(uint8_t type) {
    sd_bus_vtable entry;
    std::memset(&entry, 0, sizeof entry);
    entry.type = type;
    return entry;
}

}  // namespace

BusInterface::BusInterface(std::string name, std::vector<BusMethod> methods)
    : name_(std::move(name)), methods_(std::move(methods)) {
    for (const BusMethod& method : methods_) {
        Texts& texts = texts_.emplace_back();
        describe(method.in, texts.in, texts.names);
        describe(method.out, texts.out, texts.names);
    }
}

std::vector<sd_bus_vtable> BusInterface::vtable(sd_bus_message_handler_t handler, size_t stride) const {
    std::vector<sd_bus_vtable> table;
    sd_bus_vtable start = zeroedEntry(_SD_BUS_VTABLE_START);
    start.x.start.element_size = sizeof(sd_bus_vtable);
    start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
    table.push_back(start);

    for (size_t i = 0; i < methods_.size(); ++i) {
        sd_bus_vtable entry = zeroedEntry(_SD_BUS_VTABLE_METHOD);
        entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
        entry.x.method.member = methods_[i].name.c_str();
        entry.x.method.signature = texts_[i].in.c_str();
        entry.x.method.result = texts_[i].out.c_str();
        entry.x.method.handler = handler;
        entry.x.method.offset = i * stride;
        entry.x.method.names = texts_[i].names.c_str();
        table.push_back(entry);
    }
    table.push_back(zeroedEntry(_SD_BUS_VTABLE_END));
    return table;
}

}  // namespace telvora
