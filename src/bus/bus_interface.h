// SPDX-License-Identifier: Apache-2.0
//
// BusInterface: the names and types of one D-Bus interface. It is immutable and made once per process; all
// connections that export the interface share it. BusExport: the interface on one connection.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus/bus_message.h"

namespace telvora {

struct BusArgument {
    std::string name;
    std::string type;  // one complete D-Bus type
};

struct BusMethod {
    std::string name;
    std::vector<BusArgument> in;
    std::vector<BusArgument> out;
};

// Handles one call of the method at `index` of BusInterface::methods(). `call` stands at its first argument
// and has the method's signature. A returned error is sent at once; otherwise the handler has answered, or
// has kept the call for a later answer.
using BusCallHandler = std::function<std::optional<BusError>(size_t index, BusMessage& call)>;

class BusInterface {
  public:
    BusInterface(std::string name, std::vector<BusMethod> methods);
    ~BusInterface();
    BusInterface(const BusInterface&) = delete;
    BusInterface& operator=(const BusInterface&) = delete;

    const std::string& name() const { return name_; }
    const std::vector<BusMethod>& methods() const { return methods_; }

  private:
    friend class BusExport;
    struct Table;  // the methods as sd-bus reads them

    std::string name_;
    std::vector<BusMethod> methods_;
    std::unique_ptr<const Table> table_;
};

class BusExport {
  public:
    BusExport(const BusInterface& interface, BusCallHandler handler);
    BusExport(const BusExport&) = delete;
    BusExport& operator=(const BusExport&) = delete;

    // Adds the interface to `bus` at `path`, until this object's end, which the bus must outlive. Negative
    // errno on failure.
    int addTo(sd_bus* bus, const char* path);

  private:
    struct Method {
        const BusCallHandler* handler;
        size_t index;
    };
    struct Unref {
        void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
    };
    friend class BusInterface;
    static int onCall(sd_bus_message* message, void* userdata, sd_bus_error* error) noexcept;

    const BusInterface& interface_;
    const BusCallHandler handler_;
    std::vector<Method> methods_;
    std::unique_ptr<sd_bus_slot, Unref> slot_;
};

}  // namespace telvora
