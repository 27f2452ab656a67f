// Goal: a run that was recorded can be looked at and run again without its device and its files, and what
// became of it once happens again; a program that is killed leaves a trace that tells everything up to there.
// Method: the programs as processes, against the simulator and against traces that were recorded long ago,
// which stand in tests/traces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "Files.h"
#include "Process.h"
#include "trace/Record.h"

namespace {

using host::trace::Kind;
using host::trace::Record;
using host::trace::Soundness;
using host::trace::Trace;
using testing::AllOf;
using testing::HasSubstr;

using Arguments = std::vector<std::string>;

constexpr int kSuccess = 0;
constexpr int kBadUsage = 2;
constexpr int kUpdateFailed = 6;
constexpr int kAborted = 7;
constexpr int kTraceBroken = 20;
constexpr int kReplayDeparts = 21;
constexpr int kKilled = 1000 + SIGKILL;

class Tracing : public testing::Test {
 protected:
  int Peripheralctl(const Arguments& arguments) {
    Process process(PERIPHERALCTL, arguments);
    const int status = process.WaitForEnd();
    iOutput = process.Output();
    return status;
  }

  int Replay(const std::string& trace) { return Peripheralctl({"trace", "replay", "--fast", trace}); }

  // Records an update of a simulated device with those faults.
  std::unique_ptr<Process> StartRecording(Arguments faults, const Arguments& more = {}) {
    std::string image;
    for (int i = 0; i < 20'000; ++i) {
      image += static_cast<char>(i * i / 7);
    }
    iFolder.Write("firmware.bin", image);
    iFolder.Write("loader.bin", "loader");
    const Arguments fixed = {"--device", "can", "--link", iFolder.Path("port")};
    faults.insert(faults.begin(), fixed.begin(), fixed.end());
    iSimulator = std::make_unique<Process>(BOOTLOADER_SIMULATOR, faults);
    EXPECT_TRUE(iSimulator->WaitForOutput("port: "));
    const std::string config = iFolder.Write(
        "can.toml",
        "[properties]\nupdatelist = \"xmodem\"\nxmodemsource-image = \"firmware.bin\"\n"
        "xmodemsource-loader = \"loader.bin\"\nxmodemspeed = 115200\nxmodemportname = \"" +
            iFolder.Path("port") + "\"\nxmodemramaddress = \"1000\"\nxmodemflashaddress = \"8000\"\n");
    Arguments arguments = {"update", "--config", config, "--trace", iTrace};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<Process>(PERIPHERALCTL, arguments);
  }

  int RecordRun(const Arguments& faults, const Arguments& more = {}) {
    const auto process = StartRecording(faults, more);
    const int status = process->WaitForEnd();
    iOutput = process->Output();
    return status;
  }

  // Nobody can look after a device that is not there.
  void ExpectNoWordOfADevice() const {
    EXPECT_THAT(iOutput, testing::Not(testing::ContainsRegex("cable|power|port-lost|run the update again")));
  }

  void Unplug() { iSimulator.reset(); }

  // Writes the records as a trace.
  std::string Write(const std::vector<Record>& records) const {
    std::string content = host::trace::FileHeader();
    for (const Record& record : records) {
      content += Encode(record);
    }
    return iFolder.Write("changed.trace", content);
  }

  // A trace that is kept with one byte changed, at `place` among those of that kind.
  std::string Changed(const std::string& name, Kind kind, std::size_t place) const {
    std::vector<Record> records = RecordsOf(name);
    for (Record& record : records) {
      if (record.kind == kind && place < record.payload.size()) {
        record.payload[place] = static_cast<char>(record.payload[place] ^ 1);
        break;
      }
      place -= record.kind == kind ? record.payload.size() : 0;
    }
    return Write(records);
  }

  static std::vector<Record> RecordsOf(const std::string& name) {
    return host::trace::ReadTrace(KEPT_TRACES + name + ".trace").records;
  }

  const TemporaryFolder iFolder;
  const std::string iTrace = iFolder.Path("run.trace");
  std::unique_ptr<Process> iSimulator;
  std::string iOutput;
};

// ---- Traces that are kept ----

struct Kept {
  const char* name;
  const char* outcome;
  const char* verdict;
};

class KeptTrace : public Tracing, public testing::WithParamInterface<Kept> {};

TEST_P(KeptTrace, GoesAsItWasRecorded) {
  EXPECT_EQ(Replay(std::string(KEPT_TRACES) + GetParam().name + ".trace"), kSuccess) << iOutput;
  EXPECT_THAT(iOutput, AllOf(HasSubstr(GetParam().outcome), HasSubstr(GetParam().verdict)));
  ExpectNoWordOfADevice();
}

const Kept kKept[] = {
    {"RejectedBlocks", "The update has succeeded.",
     "The run went as recorded: 5704 bytes of the host and 697 of the device."},
    {"RefusedCheck", "The update failed.\nCAN controller, ck 8000: the device answered \"",
     "The run went as recorded: 4661 bytes of the host and 690 of the device."},
};

INSTANTIATE_TEST_SUITE_P(Of, KeptTrace, testing::ValuesIn(kKept),
                         [](const auto& kept) { return std::string(kept.param.name); });

// The host's first bytes are C, ACK and ACK for the version, then the block of the first command, "wr 1000".
TEST_F(Tracing, TellsAtWhichByteARunDeparts) {
  EXPECT_EQ(Replay(Changed("RejectedBlocks", Kind::Sent, 3 + 3 + 1)), kReplayDeparts) << iOutput;
  EXPECT_THAT(
      iOutput,
      AllOf(
          HasSubstr("The run departs from the trace at byte 7 of the host: it was 73, and now is 72.\n"
                    "  Recorded there: byte 4 of block 1, 128 bytes, CRC 2c43 WRONG"),
          HasSubstr("\n  The device had said before: byte 0 of C, asks for blocks with CRC.\n"),
          HasSubstr("'peripheralctl trace show --bytes " + iFolder.Path("changed.trace") + "' shows what")));
  ExpectNoWordOfADevice();
}

TEST_F(Tracing, TellsWhatTheDeviceHadSaidBeforeARunDeparts) {
  std::string device;
  for (const Record& record : RecordsOf("RefusedCheck")) {
    device += record.kind == Kind::Received ? record.payload : "";
  }
  EXPECT_EQ(Replay(Changed("RefusedCheck", Kind::Received, device.find("000"))), kReplayDeparts) << iOutput;
  EXPECT_THAT(iOutput,
              HasSubstr("it was 06, and now is 15.\n  Recorded there: byte 0 of ACK.\n  The device had "
                        "said before: byte 132 of block 1, 128 bytes, CRC f563 WRONG"));
}

TEST_F(Tracing, TellsThatARunEndsOtherwise) {
  EXPECT_EQ(Replay(Changed("RejectedBlocks", Kind::End, 0)), kReplayDeparts) << iOutput;
  EXPECT_THAT(iOutput,
              HasSubstr("of the host: it ended with exit code 0, and the recorded one with 1.\n  Recorded "
                        "there: nothing more."));
}

TEST_F(Tracing, TellsThatARunEndsEarlier) {
  std::vector<Record> records = RecordsOf("RefusedCheck");
  records.insert(records.end() - 1, {Kind::Sent, records.back().time_us, "\x04"});
  EXPECT_EQ(Replay(Write(records)), kReplayDeparts) << iOutput;
  EXPECT_THAT(iOutput,
              HasSubstr("of the host: the run ended there, with exit code 6.\n  Recorded there: byte 0 of "
                        "EOT.\n"));
}

TEST_F(Tracing, TellsThatARunGoesOn) {
  std::vector<Record> records = RecordsOf("RefusedCheck");
  const auto last = std::find_if(records.rbegin(), records.rend(),
                                 [](const Record& record) { return record.kind == Kind::Sent; });
  ASSERT_EQ(last->payload, "\x06");
  records.erase(last.base() - 1);
  EXPECT_EQ(Replay(Write(records)), kReplayDeparts) << iOutput;
  EXPECT_THAT(iOutput, HasSubstr("of the host: it goes on, with 06.\n  Recorded there: nothing more."));
}

// The kept trace with a silence of so many seconds before what the device says at `place` of its bytes.
std::vector<Record> WithSilence(std::vector<Record> records, std::size_t place, std::uint64_t silence_s) {
  std::uint64_t delay_us = 0;
  for (Record& record : records) {
    if (record.kind == Kind::Received && place < record.payload.size()) {
      delay_us = silence_s * 1'000'000;
    }
    place -= record.kind == Kind::Received ? record.payload.size() : 0;
    record.time_us += delay_us;
  }
  return records;
}

TEST_F(Tracing, TellsThatYouEndedTheReplay) {
  const std::string trace = Write(WithSilence(RecordsOf("RejectedBlocks"), 200, 60));
  Process process(PERIPHERALCTL, {"trace", "replay", "--fast", trace});
  ASSERT_TRUE(process.WaitForOutput("Updating as recorded."));
  process.Signal(SIGINT);
  EXPECT_EQ(process.WaitForEnd(), kAborted);
  EXPECT_THAT(process.Output(), AllOf(HasSubstr("Aborted.\nThe run went as recorded, until you ended it: "),
                                      testing::Not(HasSubstr("departs"))));
}

TEST_F(Tracing, LeavesNoFirmwareBehindWhenYouEndTheReplayTwice) {
  const std::string trace = Write(WithSilence(RecordsOf("RejectedBlocks"), 200, 60));
  const std::string scratch = iFolder.Path("scratch");
  std::filesystem::create_directory(scratch);
  Process process(PERIPHERALCTL, {"trace", "replay", "--fast", trace}, {"TMPDIR=" + scratch});
  ASSERT_TRUE(process.WaitForOutput("Updating as recorded."));
  EXPECT_FALSE(std::filesystem::is_empty(scratch));
  process.Signal(SIGINT);
  process.Signal(SIGTERM);
  EXPECT_EQ(process.WaitForEnd(), kAborted);
  EXPECT_TRUE(std::filesystem::is_empty(scratch));
  EXPECT_THAT(process.Output(), testing::Not(HasSubstr("to be recorded"))) << "a replay records nothing";
}

TEST_F(Tracing, TellsOfTheSilenceAfterWhichARunDeparts) {
  // The device's C, before the first command, comes behind its version and EOT.
  const std::vector<Record> records =
      host::trace::ReadTrace(Changed("RejectedBlocks", Kind::Sent, 3 + 3 + 1)).records;
  EXPECT_EQ(Replay(Write(WithSilence(records, 133 + 1, 6))), kReplayDeparts) << iOutput;
  EXPECT_THAT(iOutput, AllOf(HasSubstr("C, asks for blocks with CRC.\n  That had come after 6."),
                             HasSubstr(" s of silence. If it was the recorded host that stood still then")));
}

// ---- Recorded now ----

TEST_F(Tracing, OfAnUnpluggedDeviceIsReplayedUntilItsLoss) {
  EXPECT_EQ(RecordRun({"--baud", "0", "--unplug-after", "9000"}), kUpdateFailed) << iOutput;
  Unplug();
  EXPECT_EQ(Replay(iTrace), kSuccess) << iOutput;
  EXPECT_THAT(iOutput, HasSubstr("The run went as recorded: "));
  EXPECT_EQ(Peripheralctl({"trace", "show", "--log", iTrace}), kSuccess);
  EXPECT_THAT(iOutput,
              AllOf(HasSubstr("--      port lost: "), HasSubstr("log: Error Platform Serial port ")));
}

TEST_F(Tracing, OfARepeatedUpdateIsReplayedWithItsRepetition) {
  const Arguments again = {"--retries", "1", "--retry-pause", "0"};
  EXPECT_EQ(RecordRun({"--baud", "0", "--refuse", "ck"}, again), kSuccess) << iOutput;
  Unplug();
  EXPECT_EQ(Replay(iTrace), kSuccess) << iOutput;
  EXPECT_THAT(iOutput, AllOf(HasSubstr("attempt 2 of 2 begins"), HasSubstr("The run went as recorded: ")));
}

TEST_F(Tracing, OfAnAbortedRunIsReplayedAsFarAsItGoes) {
  const auto process = StartRecording({"--baud", "115200"});
  ASSERT_TRUE(process->WaitForOutput("Started uploading using CanXModem"));
  process->Signal(SIGINT);
  EXPECT_EQ(process->WaitForEnd(), kAborted);
  Unplug();
  EXPECT_EQ(host::trace::ReadTrace(iTrace).records.back().payload, "7 Aborted.");
  EXPECT_EQ(Replay(iTrace), kSuccess) << iOutput;
  EXPECT_THAT(iOutput, HasSubstr("The run went as recorded, as far as the record goes: "));
}

TEST_F(Tracing, OfAKilledProgramIsReadUpToItsLastRecord) {
  const auto process = StartRecording({"--baud", "115200"});
  ASSERT_TRUE(process->WaitForOutput("Started uploading using CanXModem"));
  process->Signal(SIGKILL);
  EXPECT_EQ(process->WaitForEnd(), kKilled);
  Unplug();
  EXPECT_EQ(host::trace::ReadTrace(iTrace).soundness, Soundness::Open);
  EXPECT_EQ(Peripheralctl({"trace", "show", iTrace}), kSuccess);
  EXPECT_THAT(iOutput, AllOf(HasSubstr("command \"gt 1000\""), HasSubstr("The trace has no end: ")));
  EXPECT_EQ(Replay(iTrace), kSuccess) << iOutput;
  EXPECT_THAT(iOutput, HasSubstr("The run went as recorded, as far as the record goes: "));
}

// ---- What is wrong with a trace ----

TEST_F(Tracing, IsShownUpToItsBreak) {
  std::string content = ContentOf(std::string(KEPT_TRACES) + "RejectedBlocks.trace");
  content.resize(content.size() - 100);
  EXPECT_EQ(Peripheralctl({"trace", "show", iFolder.Write("cut.trace", content)}), kTraceBroken);
  EXPECT_THAT(iOutput, AllOf(HasSubstr("command \"ck 8000\""), HasSubstr("The trace breaks at byte ")));
  EXPECT_EQ(Replay(iFolder.Path("cut.trace")), kTraceBroken) << iOutput;
  EXPECT_THAT(iOutput, AllOf(HasSubstr("The trace breaks at byte "), HasSubstr("as far as the record goes")));
}

TEST_F(Tracing, OfNothingIsRefused) {
  const std::string other = iFolder.Write("other", "text");
  for (const char* action : {"show", "replay"}) {
    EXPECT_EQ(Peripheralctl({"trace", action, other}), kTraceBroken);
    EXPECT_EQ(iOutput, "peripheralctl: This is no trace of peripheralctl.\n");
  }
  const std::string header = iFolder.Write("header.trace", host::trace::FileHeader());
  EXPECT_EQ(Peripheralctl({"trace", "show", header}), kSuccess);
  EXPECT_EQ(iOutput, "peripheralctl: Nothing was recorded: the trace holds no record.\n");
  EXPECT_EQ(Replay(header), kTraceBroken);
  const std::string empty = iFolder.Write(
      "empty.trace", host::trace::FileHeader() + host::trace::Encode({Kind::End, 0, "0 Done."}));
  EXPECT_EQ(Replay(empty), kTraceBroken);
  EXPECT_THAT(iOutput, HasSubstr("the trace does not tell what is needed for a run: "));
}

TEST_F(Tracing, ThatCannotBeWrittenIsRefusedBeforeTheRun) {
  iFolder.Write("target", "precious");
  std::filesystem::create_symlink(iFolder.Path("target"), iTrace);
  EXPECT_EQ(RecordRun({}), kBadUsage);
  EXPECT_EQ(iOutput, "peripheralctl: cannot write the trace '" + iTrace +
                         "': it is a symbolic link. Choose another file after --trace.\n");
  EXPECT_EQ(ContentOf(iFolder.Path("target")), "precious");
}

}  // namespace
