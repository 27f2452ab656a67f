// Goal: steps, bytes and the cause of a failure are what the module's log tells.
// Method: lines as the module logs them, one after the other.
#include "LogFollower.h"

#include <gmock/gmock.h>

#include "Files.h"

namespace {

using host::Describe;
using host::LogFollower;
using host::PlannedDevice;
using testing::ElementsAre;
using testing::IsEmpty;

class LogFollowerTest : public testing::Test {
 protected:
  void Take(const std::string& text, logging::TLevel level = logging::EInfo) {
    iFollower.Take({level, logging::PeripheralLoader, "", "", 0, text});
  }

  void StartWriting() {
    Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
    Take("Received version Boot\x1b 1.0");
    Take("Sending command wr 1000 and file /tmp/loader.bin");
  }

  std::string Why() {
    const auto cause = iFollower.WhyFailed();
    return cause ? std::string(Describe(cause->code).name) + " | " + cause->detail : "none";
  }

  host::Hearing iHearing;
  std::vector<std::string> iSteps;
  std::vector<std::string> iSent;
  LogFollower iFollower{{{"CAN controller", 3000}, {"Sanyo device", 2000}},
                        [this](const host::DeviceStep& step) {
                          iSteps.push_back(std::to_string(step.device) + " " + step.text);
                        },
                        [this](const host::SentBytes& sent) {
                          iSent.push_back(std::to_string(sent.device) + ": " +
                                          std::to_string(sent.deviceBytes) + "/" +
                                          std::to_string(sent.deviceTotal) + " " +
                                          std::to_string(sent.bytes) + "/" + std::to_string(sent.total));
                        },
                        [this] { return iHearing; }};
};

TEST_F(LogFollowerTest, TellsEachStepOfEachDevice) {
  StartWriting();
  Take("Received answer 000");
  Take("Sending command gt 1000");
  Take("SWL: Finished uploading using CanXModem", logging::EAlways);
  Take("Sending file firmware.bin");
  EXPECT_THAT(iSteps, ElementsAre("0 version Boot\\x1b 1.0", "0 wr 1000, loader.bin", "0 gt 1000",
                                  "1 image, firmware.bin"));
}

TEST_F(LogFollowerTest, KnowsTheStepAtWhichTheDeviceIs) {
  EXPECT_EQ(iFollower.Place(), std::nullopt);
  Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
  EXPECT_EQ(iFollower.Place(), "CAN controller, before the first step");
  StartWriting();
  EXPECT_EQ(iFollower.Place(), "CAN controller, wr 1000, loader.bin");
}

TEST_F(LogFollowerTest, CountsTheBytesOfAllFiles) {
  StartWriting();
  Take("Left 0 of 1000", logging::EInterface);
  Take("Sending command wr 8000 and file firmware.bin");
  Take("Left 976 of 2000", logging::EInterface);
  Take("SWL: Finished uploading using CanXModem", logging::EAlways);
  Take("Sending file firmware.bin");
  Take("Left 0 of 2000", logging::EInterface);
  EXPECT_THAT(iSent,
              ElementsAre("0: 1000/3000 1000/5000", "0: 2024/3000 2024/5000", "1: 2000/2000 5000/5000"));
}

TEST_F(LogFollowerTest, NeverCountsMoreThanThereIs) {
  StartWriting();
  Take("Left 0 of 9000", logging::EInterface);
  Take("SWL: Finished uploading using CanXModem", logging::EAlways);
  Take("SWL: Finished uploading using SanyoXModem", logging::EAlways);
  Take("Left 0 of 9000", logging::EInterface);
  Take("Left nothing", logging::EInterface);
  EXPECT_THAT(iSent, ElementsAre("0: 3000/3000 3000/5000", "2: 0/0 5000/5000"));
}

TEST_F(LogFollowerTest, AnotherAttemptBeginsAnew) {
  StartWriting();
  Take("Left 500 of 1000", logging::EInterface);
  Take("[Timeout] while processing the reply", logging::EWarning);
  StartWriting();
  Take("Left 900 of 1000", logging::EInterface);
  EXPECT_THAT(iSent, ElementsAre("0: 500/3000 500/5000", "0: 100/3000 100/5000"));
  EXPECT_EQ(Why(), "none");
  EXPECT_EQ(iFollower.WhyFailed(1)->code, host::ErrorCode::DeviceSilent);
  EXPECT_FALSE(iFollower.WhyFailed(2));
  EXPECT_FALSE(iFollower.WhyFailed(3));
}

TEST_F(LogFollowerTest, WhatIsNoPartOfItIsIgnored) {
  Take("Wait for reply");
  Take("Left 1 of 2 is no line of the engine's, but numbers are read as far as they go", logging::EInfo);
  Take("Not all required properties found!", logging::EError);
  EXPECT_THAT(iSteps, IsEmpty());
  EXPECT_EQ(Why(), "none");
}

TEST_F(LogFollowerTest, ARefusedCommandIsNamedWithTheAnswer) {
  StartWriting();
  Take("Received answer 013");
  EXPECT_EQ(Why(), "command-refused | CAN controller, wr 1000, loader.bin: the device answered \"013\"");
}

TEST_F(LogFollowerTest, ASilentDeviceIsNamedBeforeTheFirstStep) {
  Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
  Take("[Timeout] arrived while processing the first byte", logging::EWarning);
  Take("Error: 3", logging::EError);
  EXPECT_EQ(Why(),
            "device-silent | CAN controller, before the first step: the device did not answer in time");
}

TEST_F(LogFollowerTest, TheLineTellsASilentDeviceFromASlowOne) {
  using Kind = host::Hearing::Kind;
  const std::pair<host::Hearing, const char*> heard[] = {
      {{Kind::Unknown}, "stalled | CAN controller, wr 1000, loader.bin: nothing moved any more"},
      {{Kind::Speaks}, "stalled | CAN controller, wr 1000, loader.bin: nothing moved any more"},
      {{Kind::Nothing},
       "device-silent | CAN controller, wr 1000, loader.bin: nothing was heard of the device at all"},
      {{Kind::FellSilent, std::chrono::seconds(41)},
       "device-silent | CAN controller, wr 1000, loader.bin: the device fell silent and has said nothing for "
       "41 s"}};
  for (const auto& [hearing, why] : heard) {
    iHearing = hearing;
    StartWriting();
    Take("Timeout in polling for status in XModemSwl", logging::EError);
    EXPECT_EQ(Why(), why);
  }
}

TEST_F(LogFollowerTest, WhatComesAfterTheModuleGaveUpIsNoCause) {
  iHearing = {host::Hearing::Kind::Nothing};
  StartWriting();
  Take("Timeout in polling for status in XModemSwl", logging::EError);
  Take("Transfer cancelled while finalizing the delivery", logging::EWarning);
  Take("Sending command gt 1000");
  EXPECT_EQ(Why().substr(0, 13), "device-silent");
}

TEST_F(LogFollowerTest, KnowsWhetherMoreThanMemoryWasWritten) {
  Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
  EXPECT_FALSE(iFollower.OnlyMemoryWritten());
  StartWriting();
  EXPECT_TRUE(iFollower.OnlyMemoryWritten());
  Take("Sending command gt 1000");
  EXPECT_FALSE(iFollower.OnlyMemoryWritten());
  StartWriting();
  EXPECT_FALSE(iFollower.OnlyMemoryWritten()) << "the attempt before may have left something";
  Take("SWL: Finished uploading using CanXModem", logging::EAlways);
  Take("Sending command wr 1000 and file /tmp/loader.bin");
  EXPECT_TRUE(iFollower.OnlyMemoryWritten());
  Take("Sending file firmware.bin");
  EXPECT_FALSE(iFollower.OnlyMemoryWritten());
}

TEST(ReasonFor, AFileThatWasOnlyNeverAskedForIsExplained) {
  const std::string line = "The file /tmp/firmware.bin could not be opened";
  EXPECT_EQ(host::ReasonFor(line, std::nullopt), line);
  EXPECT_EQ(host::ReasonFor(line, host::Cause{host::ErrorCode::FileUnusable, ""}), line);
  EXPECT_EQ(host::ReasonFor("The disk", host::Cause{host::ErrorCode::DeviceSilent, ""}), "The disk");
  EXPECT_EQ(host::ReasonFor(line, host::Cause{host::ErrorCode::DeviceSilent, ""}),
            line + " (not so: its transfer was not begun, since the device never asked for it)");
}

struct Failure {
  const char* line;
  logging::TLevel level;
  const char* code;
};

constexpr Failure kFailures[] = {
    {"Received serial port error!", logging::EAlways, "port-lost"},
    {"Failed writing[1]. retVal = 5", logging::EError, "port-lost"},
    {"Serial port /dev/x is lost: hung up; plug the adapter in and start again", logging::EError,
     "port-lost"},
    {"Serial port /dev/x took only 1 of 2 bytes in 5000 ms; is the device on?", logging::EError, "port-lost"},
    {"Serial port /dev/x cannot do 9 bit/s, its driver offers 8; choose another speed", logging::EError,
     "port-unusable"},
    {"Cannot use serial port /dev/x: y", logging::EError, "port-unusable"},
    {"Error creating serialport /dev/x 115200", logging::EError, "port-unusable"},
    {"Too many NAKs has been received while processing the reply", logging::EError, "too-many-naks"},
    {"Too many NAKs received while finalizing the delivery", logging::EError, "too-many-naks"},
    {"The transfer has been canceled by the other side of the communication", logging::EWarning,
     "transfer-cancelled"},
    {"Transmission canceled by the other side. CAN messages received", logging::EWarning,
     "transfer-cancelled"},
    {"Transfer cancelled while finalizing the delivery", logging::EWarning, "transfer-cancelled"},
    {"[Timeout] while waiting for startup character", logging::EWarning, "device-silent"},
    {"Timeout in polling for status in XModemSwl", logging::EError, "stalled"},
    {"Unexpected reply while waiting for startup character : 65", logging::EError, "line-garbled"},
    {"Wrong reply received:65", logging::EError, "line-garbled"},
    {"Invalid Checksum while receiving packet", logging::EError, "line-garbled"},
    {"The checksum of the received packet is not correct", logging::EError, "line-garbled"},
    {"The packet received has a wrong sequence number", logging::EError, "line-garbled"},
    {"The first packet did not have the right packet number", logging::EError, "line-garbled"},
    {"No valid packet arrived while processing the first byte", logging::EError, "line-garbled"},
    {"EOT arrived while processing the first byte on the first packet", logging::EError, "line-garbled"},
    {"The file /tmp/loader.bin could not be opened", logging::EError, "file-unusable"},
    {"The packet must be re-sent", logging::EWarning, "none"},
};

TEST_F(LogFollowerTest, EachEndOfATransferHasItsCode) {
  for (const Failure& failure : kFailures) {
    StartWriting();
    Take(failure.line, failure.level);
    EXPECT_EQ(Why().substr(0, Why().find(" | ")), failure.code) << failure.line;
  }
}

TEST_F(LogFollowerTest, WhatAFailureDragsAlongDoesNotHideIt) {
  StartWriting();
  Take("[Timeout] while waiting for startup character", logging::EWarning);
  Take("The file /tmp/loader.bin could not be opened", logging::EError);
  EXPECT_EQ(Why().substr(0, 13), "device-silent");
  StartWriting();
  Take("Timeout in polling for status in XModemSwl", logging::EError);
  Take("[Timeout] while waiting for startup character", logging::EWarning);
  EXPECT_EQ(Why().substr(0, 7), "stalled");
  StartWriting();
  Take("Serial port /dev/x is lost: hung up", logging::EError);
  Take("Received serial port error!", logging::EAlways);
  Take("[Timeout] while processing the reply", logging::EWarning);
  EXPECT_EQ(Why(), "port-lost | CAN controller, wr 1000, loader.bin: Serial port /dev/x is lost: hung up");
}

TEST_F(LogFollowerTest, WhatTheAttemptBeforeSaysWhenItIsReplacedIsNoCause) {
  Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
  Take("Timeout in polling for status in XModemSwl", logging::EError);
  Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
  Take("Received serial port error!", logging::EAlways);
  Take("Failed writing[67]. retVal = 2", logging::EError);
  EXPECT_EQ(Why(), "port-lost | CAN controller, before the first step: the port takes no more bytes");
  Take("[Timeout] arrived while processing the first byte", logging::EWarning);
  Take("Failed writing[24]. retVal = 2", logging::EError);
  EXPECT_EQ(Why().substr(0, 13), "device-silent");
}

TEST_F(LogFollowerTest, WhyAPortCannotBeUsedIsToldByTheFirstLine) {
  Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
  Take("Serial port /dev/x cannot do 9 bit/s", logging::EError);
  Take("Error creating serialport /dev/x 9", logging::EError);
  EXPECT_EQ(Why(),
            "port-unusable | CAN controller, before the first step: Serial port /dev/x cannot do 9 bit/s");
}

TEST_F(LogFollowerTest, ADeviceThatTellsItsVersionForAnAnswerHasBegunAnew) {
  Take("SWL: Starting upload in PeripheralLoader", logging::EAlways);
  Take("Received version Bootloader 1.0");
  Take("Sending command wr 1000 and file /tmp/loader.bin");
  Take("Received answer Bootloader 1.0");
  EXPECT_EQ(Why(),
            "device-restarted | CAN controller, wr 1000, loader.bin: the device told its version, "
            "\"Bootloader 1.0\", once more");
}

TEST_F(LogFollowerTest, WhatWasMendedIsNoCause) {
  StartWriting();
  Take("Invalid Checksum while receiving packet", logging::EError);
  Take("Sending command gt 1000");
  EXPECT_EQ(Why(), "none");
}

TEST(PlanOf, HoldsEachDeviceWithTheSizeOfItsFiles) {
  const TemporaryFolder folder;
  const host::PropertyMap properties = {{"updatelist", "xmodem;unknown;sanyoxmodem"},
                                        {"xmodemsource-image", folder.Write("image", "12345")},
                                        {"xmodemsource-loader", folder.Write("loader", "123")}};
  const std::vector<PlannedDevice> plan = host::PlanOf(properties);
  ASSERT_EQ(plan.size(), 2u);
  EXPECT_EQ(plan[0].name, "CAN controller");
  EXPECT_EQ(plan[0].size_bytes, 8);
  EXPECT_EQ(plan[1].name, "Sanyo device");
  EXPECT_EQ(plan[1].size_bytes, 5);
  EXPECT_THAT(host::PlanOf({}), IsEmpty());
  EXPECT_EQ(host::PlanOf({{"updatelist", "sanyoxmodem"}}).front().size_bytes, 0);
}

}  // namespace
