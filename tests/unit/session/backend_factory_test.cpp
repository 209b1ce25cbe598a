// SPDX-License-Identifier: Apache-2.0
#include "session/backend_factory.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/unit/backends/backend_rig.h"

namespace telvora::test {
namespace {

TEST(BackendFactoryTest, MakesWhatTheNameSays) {
    const BackendProfile profile = profileOf({{"clients", Array{}}});
    BackendRig rig;
    const BackendFactory factory(rig.services);
    for (const char* name : {kTelvoraBackendHTTPPost, kTelvoraBackendHTTPPost2}) {
        const auto backend = factory.newBackendWithName(name, profile, "family", 7);
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->name(), name);
    }
    const BackendRig halcyra({{"ProductType", "Halcyra"}});  // has no metrics adaptor
    const BackendFactory without(halcyra.services);
    for (const char* name : {"refresh_cycle", "httppost", "", kTelvoraBackendVodex}) {
        const LogCapture log;
        EXPECT_EQ(without.newBackendWithName(name, profile, "family", 7), nullptr);
        EXPECT_TRUE(log.contains(std::string("<3>TelvoraBackend(newBackendWithName): ") + name));
    }
}

}  // namespace
}  // namespace telvora::test
