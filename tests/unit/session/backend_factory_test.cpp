// SPDX-License-Identifier: Apache-2.0
#include "session/backend_factory.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/unit/backends/backend_rig.h"

namespace telvora::test {
namespace {

TEST(BackendFactoryTest, MakesTheBackendOfTheName) {
    const BackendProfile profile = profileOf({{"clients", Array{}}});
    const SharedIdentity identity = shared(identityOf(7));
    const BackendRig rig;
    for (const char* name : {kTelvoraBackendHTTPPost, kTelvoraBackendHTTPPost2}) {
        const auto backend = newBackendWithName(rig.services, name, profile, identity);
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->name(), name);
    }
    const BackendRig halcyra({{"ProductType", "Halcyra"}});  // has no metrics adaptor
    for (const char* name : {"refresh_cycle", "httppost", "", kTelvoraBackendVodex}) {
        const LogCapture log;
        EXPECT_EQ(newBackendWithName(halcyra.services, name, profile, identity), nullptr);
        EXPECT_TRUE(log.contains(std::string("<3>TelvoraBackend(newBackendWithName): ") + name));
    }
}

}  // namespace
}  // namespace telvora::test
