// Goal: whoever reads a trace sees what was said: blocks with their numbers, whether they are right, what is
// sent again, what each transfer is for, and who kept silent. Method: traces made by hand, whose CRCs were
// computed elsewhere, shown as text.
#include "trace/Dialogue.h"

#include <gmock/gmock.h>

#include "Script.h"
#include "trace/Chart.h"
#include "trace/Steps.h"
#include "trace/TextView.h"

namespace {

using namespace host::trace;
using namespace trace_script;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

std::vector<std::string> Texts(const Trace& trace, Detail detail = Detail::Frames) {
  std::vector<std::string> texts;
  for (const Step& step : StepsOf(Understand(trace), detail)) {
    texts.push_back(std::string(step.from ? Name(*step.from) : "--") + " " + step.text);
  }
  return texts;
}

std::vector<std::string> Transfers(const Trace& trace) {
  std::vector<std::string> names;
  for (const Transfer& transfer : Understand(trace).transfers) {
    names.push_back(transfer.Name() + (transfer.result == Transfer::Result::Complete    ? ""
                                       : transfer.result == Transfer::Result::Cancelled ? " cancelled"
                                                                                        : " unfinished"));
  }
  return names;
}

// A command that is answered.
Script Exchange() {
  Script script;
  script.Add(Kind::Opened, "9600 port").Device("C").Host(Block(1, "wr 1000", kWr1000Crc));
  return script.Device("\x06").Host("\x04").Device("\x06");
}

TEST(TraceDialogue, ShowsEachFrameWithWhatItMeans) {
  EXPECT_THAT(Texts(Exchange().Device("C").Host(Block(1, "000", k000Crc)).Done()),
              ElementsAre("-- port opened (bit/s, name): 9600 port", "device C, asks for blocks with CRC",
                          "host block 1, 128 bytes, CRC 2c43 right: command \"wr 1000\"", "device ACK",
                          "host EOT", "device ACK", "device C, asks for blocks with CRC",
                          "host block 1, 128 bytes, CRC f563 right: file for 1000, byte 0"));
}

TEST(TraceDialogue, TellsWhatIsWrongWithABlock) {
  std::string twoForms = Block(1, "wr 1000", kWr1000Crc);
  twoForms[2] = 0;
  EXPECT_THAT(
      Texts(Script()
                .Device("C")
                .Host(Block(1, "wr 1000", "\x2c\x44"))
                .Device("\x15")
                .Host(twoForms)
                .Device("\x18\x18")
                .Done()),
      ElementsAre("device C, asks for blocks with CRC",
                  "host block 1, 128 bytes, CRC 2c44 WRONG, right is 2c43: command \"wr 1000\"", "device NAK",
                  "host block 1, 128 bytes, CRC 2c43 right, the two forms of its number DIFFER, sent "
                  "again: command \"wr 1000\"",
                  "device CAN, 2 in a row"));
}

TEST(TraceDialogue, KnowsAChecksumByTheRequestForIt) {
  const auto texts = Texts(Script().Device("\x15").Host(Block(1, "AB", "\x83")).Device("\x06").Done());
  EXPECT_THAT(texts, ElementsAre("device NAK", "host block 1, 128 bytes, checksum 83 right: file, byte 0",
                                 "device ACK"));
}

TEST(TraceDialogue, NamesTheTransfersByTheirPlace) {
  EXPECT_THAT(Transfers(Script()
                            .Host("C")
                            .Device(Block(1, "000", k000Crc))
                            .Host("\x06")
                            .Device("\x04")
                            .Host("\x06")
                            .Device("C")
                            .Host(Block(1, "wr 1000", kWr1000Crc))
                            .Device("\x06")
                            .Host("\x04")
                            .Device("\x06")
                            .Device("C")
                            .Host(Block(1, "000", k000Crc))
                            .Device("\x18\x18")
                            .Host("C")
                            .Device(Block(1, "000", k000Crc))
                            .Done()),
              ElementsAre("version \"000\"", "command \"wr 1000\"", "file for 1000 cancelled",
                          "answer \"000\" unfinished"));
}

TEST(TraceDialogue, TellsWhereInAFileABlockStands) {
  Script script = Exchange();
  script.Device("C");
  for (const int number : {1, 2, 2, 3}) {
    script.Host(Block(number, "", std::string("\0\0", 2), 1024)).Device(number == 2 ? "\x15" : "\x06");
  }
  const Dialogue dialogue = Understand(script.Done());
  const Transfer& file = dialogue.transfers.back();
  EXPECT_EQ(file.blocks, 3);
  EXPECT_EQ(file.resent, 1);
  EXPECT_EQ(file.size, 3072U);
  EXPECT_EQ(file.frames.size(), 3U);
  EXPECT_THAT(Texts(script.Done()),
              testing::Contains("host block 2, 1024 bytes, CRC 0000 right, sent again: file for 1000, byte "
                                "1024"));
  EXPECT_THAT(Texts(script.Done()),
              testing::Contains("host block 3, 1024 bytes, CRC 0000 right: file for 1000, byte 2048"));
}

TEST(TraceDialogue, GoesOnCountingWhenTheNumbersComeRound) {
  Script script;
  script.Device("C");
  for (int block = 1; block <= 600; ++block) {
    script.Host(Block(block % 256, "", std::string("\0\0", 2))).Device("\x06");
  }
  const Dialogue dialogue = Understand(script.Host("\x04").Device("\x06").Done());
  ASSERT_EQ(dialogue.transfers.size(), 1U);
  EXPECT_EQ(dialogue.transfers[0].blocks, 600);
  EXPECT_EQ(dialogue.transfers[0].size, 600U * 128);
  EXPECT_EQ(Texts(script.Done(), Detail::Condensed)[1],
            "host 600 blocks, 1 to 88, each acknowledged: file, byte 0");
}

TEST(TraceDialogue, TakesABlockApartThatCrossedInPieces) {
  const std::string block = Block(1, "wr 1000", kWr1000Crc);
  const auto texts =
      Texts(Script().Device("C").Host(block.substr(0, 50)).Device("x").Host(block.substr(50)).Done());
  EXPECT_THAT(texts, ElementsAre("device C, asks for blocks with CRC",
                                 "host block 1, 128 bytes, CRC 2c43 right: command \"wr 1000\"",
                                 "device 1 bytes that mean nothing here: 78"));
}

TEST(TraceDialogue, TakesADevicesBlockForCutOffOnceTheHostAnswers) {
  const std::string block = Block(1, "000", k000Crc);
  EXPECT_THAT(
      Texts(Script().Host("C").Device(block.substr(0, 9)).Host("\x15").Device(block).Done()),
      ElementsAre("host C, asks for blocks with CRC", "device block 1, 6 bytes, CUT OFF: version \"000\"",
                  "host NAK", "device block 1, 128 bytes, CRC f563 right, sent again: version \"000\""));
}

TEST(TraceDialogue, TakesADevicesBlockForCutOffOnceTheHostHasLostItsPatience) {
  const std::string block = Block(1, "000", k000Crc);
  Script script;
  script.Host("C").Device(block.substr(0, 132)).Wait_ms(5000).Device(block);
  EXPECT_THAT(Texts(script.Done()),
              ElementsAre("host C, asks for blocks with CRC",
                          "device block 1, 128 bytes, CUT OFF: version \"000\"", "-- pause of 5.010000 s",
                          "device block 1, 128 bytes, CRC f563 right, sent again: version \"000\""));
}

TEST(TraceDialogue, TakesAStartByteForAStrayWhereTheDeviceDoesNotSend) {
  EXPECT_THAT(Texts(Script().Device("C\x01").Host(Block(1, "wr 1000", kWr1000Crc)).Device("\x06").Done()),
              ElementsAre("device C, asks for blocks with CRC", "device 1 bytes that mean nothing here: 01",
                          "host block 1, 128 bytes, CRC 2c43 right: command \"wr 1000\"", "device ACK"));
}

TEST(TraceDialogue, ShowsPausesAndWhatHappensToThePort) {
  EXPECT_THAT(Texts(Script()
                        .Add(Kind::Opened, "9600 a")
                        .Host("C")
                        .Wait_ms(4990)
                        .Host("C")
                        .Add(Kind::Log, "Error Platform lost")
                        .Add(Kind::Lost, "hung\nup")
                        .Add(Kind::Closed, "")
                        .Add(Kind::End, "6 The update failed.")
                        .Done(),
                    Detail::FramesAndLog),
              ElementsAre("-- port opened (bit/s, name): 9600 a", "host C, asks for blocks with CRC",
                          "-- pause of 5.000000 s", "host C, asks for blocks with CRC",
                          "-- log: Error Platform lost", "-- port lost: hung\\x0aup", "-- port closed",
                          "-- the run ended (exit code, outcome): 6 The update failed."));
}

TEST(TraceDialogue, ShowsTheSilenceAtTheBeginningAndBeforeTheLineBreaksAndTheRunEnds) {
  EXPECT_THAT(
      Texts(Script()
                .Wait_ms(1000)
                .Add(Kind::Opened, "9600 a")
                .Wait_ms(2990)
                .Add(Kind::Lost, "gone")
                .Wait_ms(3990)
                .Add(Kind::Closed, "")
                .Wait_ms(30'000)
                .Add(Kind::Log, "Error Platform lost")
                .Wait_ms(9980)
                .Add(Kind::End, "6 The update failed.")
                .Done()),
      ElementsAre("-- pause of 1.000000 s", "-- port opened (bit/s, name): 9600 a", "-- pause of 3.000000 s",
                  "-- port lost: gone", "-- pause of 4.000000 s", "-- port closed", "-- pause of 40.000000 s",
                  "-- the run ended (exit code, outcome): 6 The update failed."));
}

TEST(TraceDialogue, BeginsAnewWhereThePortIsOpenedAnew) {
  const std::string half = Block(1, "wr 1000", kWr1000Crc).substr(0, 20);
  EXPECT_THAT(Transfers(Script()
                            .Device("C")
                            .Host(half)
                            .Add(Kind::Opened, "9600 a")
                            .Device("C")
                            .Host(Block(1, "000", k000Crc))
                            .Done()),
              ElementsAre("command \"wr 1000\" unfinished", "file unfinished"));
}

TEST(TraceDialogue, KnowsTheRunByItsFirstAndLastRecord) {
  const Dialogue dialogue =
      Understand(Script().Add(Kind::Start, "a=b=c\n\nd\ne=f").Add(Kind::End, "6 The update failed.").Done());
  EXPECT_EQ(dialogue.description, (std::map<std::string, std::string>{{"a", "b=c"}, {"e", "f"}}));
  EXPECT_EQ(dialogue.exitCode, 6);
  EXPECT_EQ(dialogue.outcome, "The update failed.");
  EXPECT_EQ(Understand(Script().Add(Kind::End, "?").Done()).exitCode, std::nullopt);
}

// ---- Views ----

TEST(TraceText, ShowsTimesBytesAndTransfers) {
  const std::string text = TextOf(Understand(Exchange().Done()), {true, false});
  EXPECT_THAT(text,
              HasSubstr("\n    0.010000  device  C, asks for blocks with CRC\n"
                        "           0          43\n"
                        "    0.020000  host    block 1, 128 bytes, CRC 2c43 right: command \"wr 1000\"\n"
                        "           0          01 01 fe 77 72 20 31 30 30 30 00 00 00 00 00 00\n"));
  EXPECT_THAT(text, HasSubstr("\n         128          00 00 00 2c 43\n"));
  EXPECT_THAT(text, testing::EndsWith(
                        "\nTransfers (begin and length in seconds):\n    0.020000  host    command \"wr "
                        "1000\": 128 bytes in 1 block, 0 sent again, 0.030000 s, complete\n"));
}

TEST(TraceChart, HasAnArrowForEachStepAndNoMarkupOfTheDevice) {
  Script script = Exchange();
  const std::string svg =
      SequenceChart(Understand(script.Add(Kind::Lost, "<b>&\"\xc3").Add(Kind::Closed, "").Done()));
  std::size_t arrows = 0;
  for (std::size_t at = svg.find("<path "); at != std::string::npos; at = svg.find("<path ", at + 1)) {
    ++arrows;
  }
  EXPECT_EQ(arrows, 5U);
  EXPECT_THAT(svg, testing::StartsWith("<svg xmlns=\"http://www.w3.org/2000/svg\""));
  EXPECT_THAT(svg, HasSubstr("command &#34;wr 1000&#34;</text>"));
  EXPECT_THAT(svg, HasSubstr("port lost: &#60;b&#62;&#38;&#34;\\xc3</text>"));
  EXPECT_THAT(svg, testing::EndsWith("</svg>\n"));
}

TEST(TraceChart, ShowsARowOfBlocksAsOneArrowUnlessSomethingHappens) {
  Script script;
  script.Device("C");
  for (int number = 1; number <= 9; ++number) {
    script.Host(Block(number, "", std::string("\0\0", 2)));
    script.Device(number == 5 ? "\x15" : "\x06");
  }
  EXPECT_THAT(Texts(script.Done(), Detail::Condensed),
              ElementsAre("device C, asks for blocks with CRC",
                          "host 4 blocks, 1 to 4, each acknowledged: file, byte 0",
                          "host block 5, 128 bytes, CRC 0000 right: file, byte 512", "device NAK",
                          "host 4 blocks, 6 to 9, each acknowledged: file, byte 640"));
}

}  // namespace
