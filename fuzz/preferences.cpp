// SPDX-License-Identifier: Apache-2.0
//
// Preference files. They hold what the reader of property lists finds in them, the administrator's values
// win, and a value that is set stands beside the others and comes back.
#include "fuzz/target.h"
#include "platform/user_defaults.h"
#include "plist/property_list_format.h"
#include "tests/support/temporary_directory.h"

namespace telvora::fuzz {

const double kMostSeconds = 6;  // as for property lists

namespace {

constexpr char kDomain[] = "com.zandor.telvora";
constexpr char kFile[] = "Preferences/com.zandor.telvora.plist";

// Two dictionaries are compared by their documents, as a NaN does not equal itself.
std::string serialized(const PropertyList& value) {
    return serializePropertyList(value, PropertyListFormat::binary).value();
}

Dictionary dictionaryIn(std::string_view document) {
    const auto value = parsePropertyList(document);
    const auto* dictionary = value ? value->getIf<Dictionary>() : nullptr;
    return dictionary != nullptr ? *dictionary : Dictionary();
}

}  // namespace

void tryInput(std::string_view bytes) {
    static const test::TemporaryDirectory administrator, state;
    static const std::string other = serialized(Dictionary{{"a", 1}, {"b", "other"}});
    Input input(bytes);
    const bool isAdministrators = input.byte() % 2 == 0;
    const std::string_view document = input.rest();
    std::filesystem::remove_all(state.path() / "Preferences");  // unreadable files of earlier inputs
    administrator.write(kFile, isAdministrators ? document : other);
    state.write(kFile, isAdministrators ? other : document);
    const Dictionary theirs = dictionaryIn(isAdministrators ? document : other);
    const Dictionary own = dictionaryIn(isAdministrators ? other : document);

    UserDefaults defaults(administrator.path(), state.path());
    for (const auto& [key, value] : theirs)
        require(serialized(defaults.value(kDomain, key).value()) == serialized(value),
                "the administrator wins");
    for (const auto& [key, value] : own)
        require(theirs.contains(key) || serialized(defaults.value(kDomain, key).value()) == serialized(value),
                "an own value is found");

    require(defaults.set(kDomain, "set", "value").has_value(), "a value can be set");
    UserDefaults fresh(administrator.path(), state.path());
    Dictionary expected = own;
    expected.set("set", "value");
    require(serialized(fresh.files(kDomain).own) == serialized(expected),
            "a value that is set stands beside others");
    require(test::readFile(administrator.path() / kFile) == (isAdministrators ? document : other),
            "the administrator's file is never written");
}

}  // namespace telvora::fuzz
