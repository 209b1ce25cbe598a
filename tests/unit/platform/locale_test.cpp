// SPDX-License-Identifier: Apache-2.0
#include "platform/locale.h"

#include <gtest/gtest.h>

#include "platform/directories.h"
#include "tests/support/environment_variable.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using test::EnvironmentVariable;

struct LocaleCase {
    const char* all;
    const char* language;
    const char* file;
    std::optional<std::string> country;
};

TEST(LocaleTest, TheCountryIsTheFirstThatIsNamed) {
    const LocaleCase cases[] = {
        {"de_CH.UTF-8", "fr_FR", "LANG=en_US", "CH"},
        {nullptr, "fr_FR@euro", "LANG=en_US", "FR"},
        {"", "", "# x\nLC_TIME=de_DE\nLANG=\"en_us.UTF-8\"\n", "US"},
        {"C", "POSIX", "LANG=pt_BR", "BR"},
        {"C.UTF-8", nullptr, "LANG=eo", std::nullopt},
        {"es_419", "en_", "", std::nullopt},
        {"x_1A", "x_ABC", nullptr, std::nullopt},
    };
    const test::TemporaryDirectory directory;
    for (const LocaleCase& test : cases) {
        const EnvironmentVariable all("LC_ALL", test.all);
        const EnvironmentVariable language("LANG", test.language);
        const auto file = directory.path() / "locale.conf";
        std::filesystem::remove(file);
        if (test.file != nullptr) directory.write("locale.conf", test.file);
        EXPECT_EQ(currentCountryCode(file), test.country) << (test.all ? test.all : "") << " " << test.file;
    }
}

TEST(LocaleTest, TheTimeZoneIsEastPositiveAndFollowsItsVariable) {
    for (const auto& [zone, offset] :
         {std::pair{"EAST-05:30", 19800L}, {"WEST+03:00", -10800L}, {"UTC", 0L}}) {
        const EnvironmentVariable variable("TZ", zone);
        EXPECT_EQ(timeZoneOffsetSeconds(), offset) << zone;
    }
}

TEST(DirectoriesTest, TheFirstOfAListCountsAndEmptyIsAbsent) {
    const EnvironmentVariable runtime("RUNTIME_DIRECTORY", "/run/one:/run/two");
    const EnvironmentVariable state("STATE_DIRECTORY", "");
    const EnvironmentVariable configuration("CONFIGURATION_DIRECTORY", nullptr);
    const EnvironmentVariable logs("LOGS_DIRECTORY", nullptr);
    const EnvironmentVariable framework("TELVORA_FRAMEWORK_DIR", "/f");
    const Directories directories = Directories::fromEnvironment();
    EXPECT_EQ(directories.runtime, "/run/one");
    EXPECT_EQ(directories.state, "/var/lib/telvora");
    EXPECT_EQ(directories.configuration, "/etc/telvora");
    EXPECT_TRUE(directories.logs.is_absolute());
    EXPECT_EQ(directories.framework, "/f");
}

}  // namespace
}  // namespace telvora
