// SPDX-License-Identifier: Apache-2.0
//
// BusInterface: the description of one D-Bus interface, its methods with their arguments' names and types. It
// is immutable, and made once per process; every connection that exports the interface shares it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
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
    // The index of the method of this name.
    std::optional<size_t> find(std::string_view method) const;
    // The types of a method's arguments, one after another, and of its answer's.
    const std::string& signature(size_t method) const { return signatures_[method].in; }
    const std::string& answerSignature(size_t method) const { return signatures_[method].out; }

    // The element "interface" of the introspection format (D-Bus Specification).
    const std::string& introspection() const { return introspection_; }

  private:
    struct Signatures {
        std::string in;
        std::string out;
    };

    const std::string name_;
    const std::vector<BusMethod> methods_;
    std::vector<Signatures> signatures_;
    std::string introspection_;
};

}  // namespace telvora
