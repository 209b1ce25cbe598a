// SPDX-License-Identifier: Apache-2.0
//
// BusInterface: what one D-Bus interface looks like, its methods with their arguments' names and types. It is
// immutable, and made once per process; every connection that exports the interface shares it.
#pragma once

#include <systemd/sd-bus-vtable.h>

#include <memory>
#include <string>
#include <vector>

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

class BusInterface {
  public:
    BusInterface(std::string name, std::vector<BusMethod> methods);
    BusInterface(const BusInterface&) = delete;
    BusInterface& operator=(const BusInterface&) = delete;

    const std::string& name() const { return name_; }
    const std::vector<BusMethod>& methods() const { return methods_; }
    // The types of a method's arguments, one after another.
    const std::string& signature(size_t method) const { return texts_[method].in; }

    // The same as sd-bus wants it. Calls reach `handler` with the user data advanced by `stride` per method.
    std::vector<sd_bus_vtable> vtable(sd_bus_message_handler_t handler, size_t stride) const;

  private:
    struct Texts {
        std::string in;
        std::string out;
        std::string names;  // of all arguments, each with its NUL
    };

    std::string name_;
    std::vector<BusMethod> methods_;
    std::vector<Texts> texts_;
};

}  // namespace telvora
