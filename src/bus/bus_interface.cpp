// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_interface.h"

#include <systemd/sd-bus-vtable.h>

#include <cstring>
#include <deque>
#include <exception>

#include "util/mutex.h"

namespace telvora {

namespace {

// libsystemd draws the key of every new hash table into a variable that all threads share, and an object's
// first interface makes such tables: one connection at a time.
Mutex hashTablesLock;

void describe(const std::vector<BusArgument>& arguments, std::string& signature, std::string& names) {
    for (const BusArgument& argument : arguments) {
        signature += argument.type;
        names += argument.name;
        names += '\0';
    }
}

// sd-bus requires that the unused parts of an entry are zero, which an initializer does not guarantee.
sd_bus_vtable zeroedEntry(uint8_t type) {
    sd_bus_vtable entry;
    std::memset(&entry, 0, sizeof entry);
    entry.type = type;
    return entry;
}

}  // namespace

struct BusInterface::Table {
    struct Texts {
        std::string in;
        std::string out;
        std::string names;  // of all arguments, each with its NUL
    };
    std::deque<Texts> texts;
    std::vector<sd_bus_vtable> entries;
};

BusInterface::BusInterface(std::string name, std::vector<BusMethod> methods)
    : name_(std::move(name)), methods_(std::move(methods)) {
    auto table = std::make_unique<Table>();
    sd_bus_vtable start = zeroedEntry(_SD_BUS_VTABLE_START);
    start.x.start.element_size = sizeof(sd_bus_vtable);
    start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
    table->entries.push_back(start);

    for (size_t i = 0; i < methods_.size(); ++i) {
        Table::Texts& texts = table->texts.emplace_back();
        describe(methods_[i].in, texts.in, texts.names);
        describe(methods_[i].out, texts.out, texts.names);
        sd_bus_vtable entry = zeroedEntry(_SD_BUS_VTABLE_METHOD);
        entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
        entry.x.method.member = methods_[i].name.c_str();
        entry.x.method.signature = texts.in.c_str();
        entry.x.method.result = texts.out.c_str();
        entry.x.method.handler = BusExport::onCall;
        entry.x.method.offset = i * sizeof(BusExport::Method);
        entry.x.method.names = texts.names.c_str();
        table->entries.push_back(entry);
    }
    table->entries.push_back(zeroedEntry(_SD_BUS_VTABLE_END));
    table_ = std::move(table);
}

BusInterface::~BusInterface() = default;

BusExport::BusExport(const BusInterface& interface, BusCallHandler handler)
    : interface_(interface), handler_(std::move(handler)) {
    for (size_t i = 0; i < interface.methods().size(); ++i)
        methods_.push_back({&handler_, i});
}

int BusExport::addTo(sd_bus* bus, const char* path) {
    sd_bus_slot* slot = nullptr;
    const MutexLock lock(hashTablesLock);
    const int result = sd_bus_add_object_vtable(bus, &slot, path, interface_.name().c_str(),
                                                interface_.table_->entries.data(), methods_.data());
    slot_.reset(slot);
    return result;
}

// No exception may unwind through sd-bus: an exception of a handler (out of memory, in practice) becomes an
// error reply.
int BusExport::onCall(sd_bus_message* message, void* userdata, sd_bus_error* error) noexcept {
    const Method& method = *static_cast<Method*>(userdata);
    try {
        BusMessage call = BusMessage::share(message);
        if (const std::optional<BusError> failure = (*method.handler)(method.index, call)) {
            return sd_bus_error_set(error, failure->name.c_str(), failure->message.c_str());
        }
        return 1;
    } catch (const std::exception& exception) {
        return sd_bus_error_set(error, kBusErrorFailed, exception.what());
    }
}

}  // namespace telvora
