// SPDX-License-Identifier: Apache-2.0
#include "backends/vodex_backend.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <sstream>

#include "backends/vodex_payload.h"
#include "tests/support/backend_rig.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;

TEST(VodexBackendTest, ExistsForThreeClientTypes) {
    const BackendRig rig;
    const auto make = [&rig](int32_t type) {
        return VodexBackend::make(rig.services, kTelvoraBackendVodex, nullptr, shared(identityOf(type)));
    };
    const std::string line = "VodexBackend(initWithName): ";
    for (const int32_t type : {7, 11, 13})
        EXPECT_NE(make(type), nullptr);
    for (const int32_t type : {-1, 0, 8, 14, 39, 45}) {
        const LogCapture log;
        const std::string of = " for client type " + std::to_string(type);
        EXPECT_EQ(make(type), nullptr);
        EXPECT_THAT(log.lines(), ElementsAre("<6>" + line + "Loading Vodex adaptor class" + of,
                                             "<3>" + line + "No matching bundle found" + of));
    }
}

TEST(VodexBackendTest, SurvivesFaultyAdaptors) {
    const auto deaf = [](const std::string& adaptor) {
        return "<3>VodexBackend(sendMessage): Vodex adaptor " + adaptor +
               " does not respond to forwarding selector sendMessageWithMethod:respCode:dict:";
    };
    const auto threw = [](const std::string& operation) {
        return "<3>VodexBackend(" + operation + "): the Vodex adaptor threw an exception";
    };
    const std::string directory = TELVORA_TEST_ADAPTORS "/";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"noClass.so", {deaf("(null)")}},
        {directory + "absent.so", {deaf("(null)")}},
        {directory + "noClass.so", {deaf("(null)")}},
        {directory + "wrongVersion.so", {deaf("(null)")}},
        {directory + "createsNothing.so", {deaf("(null)")}},
        {directory + "createThrows.so", {threw("initWithName"), deaf("(null)")}},
        {directory + "noSend.so", {deaf("<VodexAdaptor>")}},
        {directory + "sendThrows.so", {threw("sendMessage")}},
        {directory + "destroyThrows.so", {threw("dealloc")}}};
    BackendRig rig;
    for (const auto& [path, errors] : cases) {
        const LogCapture log;
        rig.services.vodexAdaptorPath = path;
        auto backend = VodexBackend::make(rig.services, "vodex", nullptr, shared(identityOf(7)));
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->sendMessage(Dictionary{{"key", "value"}}, {}, 1, 2, SendFlag{}), std::nullopt);
        backend.reset();
        std::vector<std::string> found = log.lines();
        std::erase_if(found, [](const std::string& line) { return !line.starts_with("<3>"); });
        EXPECT_EQ(found, errors) << path;
    }
    // Threads of an adaptor may outlive its instances, and need its code.
    EXPECT_NE(dlopen((directory + "destroyThrows.so").c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

// The results of all accessors for a value; those of other kinds are 0 or "-".
std::string accessed(const PropertyList& list) {
    const telvora_vodex_host& host = vodexHost();
    const telvora_vodex_value* value = vodexValue(&list);
    size_t length = 99;
    const char* bytes = host.bytes(value, &length);
    std::ostringstream text;
    text << host.kind(value) << ' ' << host.boolean(value) << ' ' << host.integer(value) << ' '
         << host.unsigned_integer(value) << ' ' << host.real(value) << ' '
         << (bytes != nullptr ? std::string(bytes, length) : "-") << ' ' << host.count(value) << ' '
         << (host.element(value, host.count(value)) == nullptr);
    return text.str();
}

TEST(VodexPayloadTest, ShowsEveryKind) {
    const std::pair<PropertyList, std::string> cases[] = {
        {true, "1 1 0 0 0 - 0 1"},
        {-5, "2 0 -5 0 0 - 0 1"},
        {UINT64_MAX, "3 0 0 18446744073709551615 0 - 0 1"},
        {2.5, "4 0 0 0 2.5 - 0 1"},
        {"text", "5 0 0 0 0 text 0 1"},
        {Data{std::string("\0x", 2)}, std::string("6 0 0 0 0 \0x 0 1", 16)},
        {Date{99.5}, "7 0 0 0 99.5 - 0 1"},
        {Array{1, "second"}, "8 0 0 0 0 - 2 1"},
        {Dictionary{{"b", 2}, {"a", "first"}}, "9 0 0 0 0 - 2 1"}};
    for (const auto& [value, expected] : cases)
        EXPECT_EQ(accessed(value), expected);

    const telvora_vodex_host& host = vodexHost();
    const PropertyList list(Dictionary{{"b", Array{1, "second"}}, {"a", "first"}});
    const telvora_vodex_value* dictionary = vodexValue(&list);
    EXPECT_STREQ(host.key(dictionary, 0), "a");
    EXPECT_EQ(host.key(dictionary, 2), nullptr);
    EXPECT_STREQ(host.bytes(host.element(dictionary, 0), nullptr), "first");
    EXPECT_STREQ(host.bytes(host.element(host.value_for_key(dictionary, "b"), 1), nullptr), "second");
    for (const char* key : {"c", static_cast<const char*>(nullptr)})
        EXPECT_EQ(host.value_for_key(dictionary, key), nullptr);
    EXPECT_EQ(host.key(host.element(dictionary, 1), 0), nullptr);
    EXPECT_EQ(host.kind(nullptr), TELVORA_VODEX_NONE);
    EXPECT_EQ(host.count(nullptr), 0U);
}

}  // namespace
}  // namespace telvora::test
