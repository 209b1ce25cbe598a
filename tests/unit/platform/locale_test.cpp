// SPDX-License-Identifier: Apache-2.0
#include "platform/locale.h"

#include <gtest/gtest.h>

#include "platform/directories.h"
#include "tests/support/environment_variable.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using test::EnvironmentVariable;

TEST(LocaleTest, TheCountryIsTheFirstThatIsNamed) {
    const struct {
        const char *all, *language, *file;
        std::optional<std::string> country;
    } cases[] = {
        {"de_CH.UTF-8", "fr_FR", "LANG=en_US", "CH"},
        {nullptr, "fr_FR@euro", "LANG=en_US", "FR"},
        {"", "", "# x\nLC_TIME=de_DE\nLANG=\"en_us.UTF-8\"\n", "US"},
        {"C", "POSIX", "LANG=pt_BR", "BR"},
        {"C.UTF-8", nullptr, "LANG=eo", std::nullopt},
        {"es_419", "en_", "", std::nullopt},
        {"x_1A", "x_ABC", "", std::nullopt},
    };
    const test::TemporaryDirectory directory;
    EXPECT_EQ(currentCountryCode(directory.path() / "none"), std::nullopt);
    for (const auto& each : cases) {
        const EnvironmentVariable all("LC_ALL", each.all), language("LANG", each.language);
        EXPECT_EQ(currentCountryCode(directory.write("locale.conf", each.file)), each.country) << each.file;
    }
}

TEST(LocaleTest, TheTimeZoneIsEastPositiveAndFollowsItsVariable) {
    for (const auto& [zone, offset] : {std::pair{"EAST-05:30", 19800L}, {"WEST+03:00", -10800L}}) {
        const EnvironmentVariable variable("TZ", zone);
        EXPECT_EQ(timeZoneOffsetSeconds(), offset) << zone;
    }
}

TEST(DirectoriesTest, TheFirstOfAListCountsAndEmptyIsAbsent) {
    const EnvironmentVariable runtime("RUNTIME_DIRECTORY", "/run/one:/run/two"), state("STATE_DIRECTORY", ""),
        configuration("CONFIGURATION_DIRECTORY", nullptr);
    const Directories directories = Directories::fromEnvironment();
    EXPECT_EQ(directories.runtime, "/run/one");
    EXPECT_EQ(directories.state, "/var/lib/telvora");
    EXPECT_EQ(directories.configuration, "/etc/telvora");
}

}  // namespace
}  // namespace telvora
