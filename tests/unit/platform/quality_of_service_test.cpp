// SPDX-License-Identifier: Apache-2.0
#include "platform/quality_of_service.h"

#include <gtest/gtest.h>
#include <linux/ioprio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <thread>

#include "tests/support/forked_child.h"

namespace telvora {
namespace {

using test::ChildReport;

TEST(QualityOfService, HoldsForTheThreadAndThoseItStarts) {
    EXPECT_EQ(test::inForkedChild([](const ChildReport& report) {
                  const int before = getpriority(PRIO_PROCESS, 0);
                  setUtilityQualityOfService();
                  const auto check = [&] {
                      report.expect(getpriority(PRIO_PROCESS, 0) == std::max(before, 5), "nice");
                      report.expect(syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, 0) ==
                                        static_cast<long>(IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 6)),
                                    "I/O priority");
                      report.expect(prctl(PR_GET_TIMERSLACK) == 50'000'000, "timer slack");
                  };
                  check();
                  std::thread(check).join();
              }),
              "");
}

TEST(QualityOfService, NeverRaisesWhatWasLower) {
    EXPECT_EQ(test::inForkedChild([](const ChildReport& report) {
                  report.expectErrno(setpriority(PRIO_PROCESS, 0, 19), 0, "setpriority");
                  setUtilityQualityOfService();
                  report.expect(getpriority(PRIO_PROCESS, 0) == 19, "nice");
              }),
              "");
}

}  // namespace
}  // namespace telvora
