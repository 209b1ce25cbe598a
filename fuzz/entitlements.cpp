// SPDX-License-Identifier: Apache-2.0
//
// Entitlement files. A file grants what its dictionary says, to whom it says, and doubt grants nothing.
// Another file's grants stay.
#include "access/entitlements.h"

#include <set>

#include "fuzz/target.h"
#include "plist/property_list_format.h"
#include "tests/support/temporary_directory.h"

namespace telvora::fuzz {

const double kMostSeconds = 6;  // as for property lists

namespace {

enum class Holds { no, unknown, yes };

Holds textHolds(const PropertyList& value, const std::string& own) {
    const auto* text = value.getIf<std::string>();
    return text != nullptr && !text->empty() && *text == own ? Holds::yes : Holds::no;
}

Holds idHolds(const PropertyList& value, uint32_t own) {
    if (value.is<std::string>()) return Holds::unknown;  // the system's users and groups decide
    const auto* id = value.getIf<int64_t>();
    return id != nullptr && *id == own ? Holds::yes : Holds::no;
}

// Whether the file's conditions hold, by the rules of entitlements.h.
Holds conditionsHold(const Dictionary& file, const Peer& peer) {
    Holds holds = Holds::yes;
    for (const auto& [key, value] : file) {
        Holds one = Holds::no;
        if (key == "User") one = idHolds(value, peer.uid);
        if (key == "Group") one = idHolds(value, peer.gid);
        if (key == "Unit") one = textHolds(value, peer.unit);
        if (key == "Label") one = textHolds(value, peer.label);
        if (key == "Entitlements" && value.is<Dictionary>()) one = Holds::yes;
        holds = std::min(holds, one);
    }
    return file.contains("Entitlements") ? holds : Holds::no;
}

std::string serialized(const std::optional<PropertyList>& value) {
    return value ? serializePropertyList(*value, PropertyListFormat::binary).value() : "";
}

}  // namespace

void tryInput(std::string_view bytes) {
    static const test::TemporaryDirectory directory;
    static const EntitlementStore store(directory.path());
    static const Peer peer{
        .pid = 5, .uid = 4711, .gid = 4712, .groups = {}, .label = "app_t", .unit = "app.service"};
    static const auto before = [] {
        directory.write("entitlements.d/10-base.plist",
                        serialized(Dictionary{{"Entitlements", Dictionary{{"a", "base"}}}}));
        return serialized(store.valueForEntitlement(peer, "a"));
    }();
    directory.write("entitlements.d/20-file.plist", bytes);

    const auto value = parsePropertyList(bytes);
    const auto* file = value ? value->getIf<Dictionary>() : nullptr;
    const Holds holds = file != nullptr ? conditionsHold(*file, peer) : Holds::no;
    const auto* granted = file != nullptr ? file->dictionary("Entitlements") : nullptr;
    for (const char* name : {"a", "b"}) {
        const std::string found = serialized(store.valueForEntitlement(peer, name));
        const std::string others = *name == 'a' ? before : "";
        const auto* own = granted != nullptr ? granted->find(name) : nullptr;
        const std::string given = own != nullptr ? serialized(*own) : others;
        require(found == others || (holds != Holds::no && found == given), "a file grants only what it says");
        require(holds != Holds::yes || found == given, "a file grants what it says");
    }
}

}  // namespace telvora::fuzz
