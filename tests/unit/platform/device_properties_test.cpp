// SPDX-License-Identifier: Apache-2.0
#include "platform/device_properties.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using namespace std::string_literals;

class DevicePropertiesTest : public testing::Test {
  protected:
    Dictionary all() const { return DeviceProperties(root_.path() / "etc/telvora", root_.path()).all(); }

    test::TemporaryDirectory root_;
};

TEST_F(DevicePropertiesTest, APersonalComputerAnswersFromItsReleaseAndItsFirmware) {
    root_.write("etc/os-release",
                "# comment\nNAME='x'\nVERSION_ID=\"12\"\nVERSION=\"12 (book\\\"worm)\"\nrubbish\n");
    root_.write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    root_.write("sys/class/dmi/id/board_name", "To Be Filled By O.E.M.\n");
    root_.write("sys/class/dmi/id/product_name", "  Workhorse 9 \n");
    root_.write("sys/class/dmi/id/product_serial", "Default string\n");
    root_.write("sys/class/dmi/id/board_serial", "S-77\n");
    root_.write("proc/sys/kernel/hostname", "desk\n");
    root_.write("etc/hostname", "other\n");

    Dictionary answers = all();
    const std::string deviceID = *answers.string("UniqueDeviceID");
    answers.erase("UniqueDeviceID");
    EXPECT_EQ(answers, (Dictionary{{"ProductVersion", "12"},
                                   {"BuildVersion", "12 (book\"worm)"},
                                   {"ProductType", "Workhorse 9"},
                                   {"SerialNumber", "S-77"},
                                   {"DeviceName", "desk"}}));
    EXPECT_EQ(deviceID.size(), 40u);
    EXPECT_EQ(deviceID.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(deviceID.find("01234567"), std::string::npos);
    EXPECT_EQ(deviceID, *all().string("UniqueDeviceID"));
}

TEST_F(DevicePropertiesTest, ABoardAnswersFromItsDeviceTree) {
    root_.write("usr/lib/os-release", "BUILD_ID=2025.1\nVERSION=no\n");
    root_.write("proc/device-tree/model", "Maker Board 4\0"s);
    root_.write("proc/device-tree/compatible", "maker,board-4\0maker,soc\0"s);
    root_.write("proc/device-tree/serial-number", "00c0ffee\0"s);
    EXPECT_EQ(all(), (Dictionary{{"BuildVersion", "2025.1"},
                                 {"HWModelStr", "Maker Board 4"},
                                 {"ProductType", "maker,board-4"},
                                 {"SerialNumber", "00c0ffee"}}));
}

TEST_F(DevicePropertiesTest, TheAdministratorsWordWins) {
    root_.write("etc/hostname", "plain");
    root_.write("etc/telvora/device.plist",
                "<plist><dict><key>DeviceName</key><string>given</string><key>ReleaseType</key>"
                "<string>Internal</string><key>BuildVersion</key><integer>7</integer></dict></plist>");
    EXPECT_EQ(all(), (Dictionary{{"DeviceName", "given"}, {"ReleaseType", "Internal"}}));

    const test::LogCapture log;
    const auto file = root_.write("etc/telvora/device.plist", "rubbish");
    EXPECT_EQ(all(), Dictionary({{"DeviceName", "plain"}}));
    EXPECT_TRUE(log.contains("<4>DeviceProperties(readDeviceFile): " + file.string() +
                             " counts as absent: not a property list"));
}

TEST_F(DevicePropertiesTest, AMachineIDThatIsNoneMakesNoDeviceID) {
    for (const char* content : {"", "uninitialized\n", "0123456789ABCDEF0123456789ABCDEF\n", "0123"}) {
        root_.write("etc/machine-id", content);
        EXPECT_TRUE(all().empty()) << content;
    }
}

}  // namespace
}  // namespace telvora
