// Goal: a report counts what happened, and nothing that a device or a path holds can spoil its form.
// Method: traces made by hand; the JSON is read by the library that others would use.
#include "report/RunReport.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "../trace/Script.h"
#include "report/Figures.h"

namespace {

using namespace host::report;
using namespace trace_script;
using host::trace::Understand;
using testing::HasSubstr;
using testing::Not;

const std::string kZeroCrc(2, '\0');
const host::Faults kErrors = {{host::ErrorCode::PortLost, "gone <b>"}};

// A file of three blocks, of which the second is sent twice, with a pause before its last one.
Trace FileInThreeBlocks() {
  Script script;
  script.Add(Kind::Start, "time=now\nproperty.xmodemportname=<p>\xff\n");
  script.Add(Kind::Opened, "9600 port").Device("C");
  script.Host(Block(1, "", kZeroCrc)).Device("\x06").Host(Block(2, "", kZeroCrc)).Device("\x15");
  script.Host(Block(2, "", kZeroCrc)).Device("\x06").Wait_ms(1990);
  script.Host(Block(3, "", kZeroCrc)).Device("\x06").Host("\x04").Device("\x06");
  script.Add(Kind::Log, "Error Platform <script>\xfe");
  return script.Add(Kind::End, "6 The update failed.").Done();
}

TEST(Figures, CountWhatCrossedWhatArrivedAndWhatWasSentAgain) {
  const Figures figures = Count(Understand(FileInThreeBlocks()));
  EXPECT_EQ(figures.sent, 4U * 133 + 1);
  EXPECT_EQ(figures.received, 6U);
  EXPECT_EQ(figures.acknowledged, 3U * 128);
  EXPECT_EQ(figures.blocks, 3);
  EXPECT_EQ(figures.duration_us, 2'120'000U);
  EXPECT_EQ(figures.paused_us, 2'000'000U);
  ASSERT_EQ(figures.retransmissions.size(), 1U);
  const Retransmission& again = figures.retransmissions[0];
  EXPECT_EQ(again.time_us, 70'000U);
  EXPECT_EQ(again.sender, host::trace::Side::Host);
  EXPECT_EQ(again.block, 2);
  EXPECT_EQ(again.transfer, "file");
  EXPECT_EQ(again.after, "NAK");
}

TEST(Figures, SpreadTheAcknowledgedBytesOverTime) {
  const Rate rate = Count(Understand(FileInThreeBlocks())).rate;
  EXPECT_EQ(rate.step_us, 100'000U);
  std::vector<std::uint64_t> expected(22);
  expected[0] = 2 * 128;
  expected[20] = 128;
  EXPECT_EQ(rate.bytes, expected);
}

TEST(Figures, TakeLongerStepsForALongRun) {
  for (const auto& [seconds, step_us] :
       {std::pair(3, 100'000U), std::pair(5, 200'000U), std::pair(15, 500'000U), std::pair(39, 1'000'000U),
        std::pair(3600, 100'000'000U)}) {
    Script script;
    script.Host("C").Wait_ms(static_cast<std::uint64_t>(seconds) * 1000).Device("\x06");
    EXPECT_EQ(Count(Understand(script.Done())).rate.step_us, step_us) << seconds;
  }
}

TEST(Figures, LastUntilTheRunEndsWhoeverKeepsSilentBefore) {
  Script script;
  script.Wait_ms(990).Add(Kind::Log, "Info Platform x").Add(Kind::Opened, "9600 port").Host("C").Device("x");
  script.Wait_ms(40'000).Add(Kind::Log, "Error Platform x").Add(Kind::End, "6 The update failed.");
  const Figures figures = Count(Understand(script.Done()));
  EXPECT_EQ(figures.duration_us, 40'040'000U);
  EXPECT_EQ(figures.paused_us, 1'000'000U + 40'020'000U);
}

TEST(Figures, OfNothingAreZero) {
  const Figures figures = Count(Understand(Script().Add(Kind::End, "5 x").Done()));
  EXPECT_EQ(figures.duration_us, 0U);
  EXPECT_TRUE(figures.rate.bytes.empty());
}

TEST(RunReport, AsJsonHoldsTheRun) {
  const auto report = nlohmann::json::parse(JsonReport(FileInThreeBlocks(), kErrors));
  EXPECT_EQ(report["report"], "peripheralctl");
  EXPECT_EQ(report["version"], 1);
  EXPECT_EQ(report["exitCode"], 6);
  EXPECT_EQ(report["outcome"], "The update failed.");
  ASSERT_EQ(report["errors"].size(), 1U);
  EXPECT_EQ(report["errors"][0]["code"], "port-lost");
  EXPECT_EQ(report["errors"][0]["message"], "gone <b>");
  EXPECT_EQ(report["errors"][0]["cause"], host::Describe(host::ErrorCode::PortLost).cause);
  EXPECT_EQ(report["errors"][0]["advice"], host::Describe(host::ErrorCode::PortLost).advice);
  EXPECT_EQ(report["run"]["time"], "now");
  EXPECT_EQ(report["figures"], nlohmann::json::parse(
                                   R"({"duration_s": 2.12, "bytesSent": 533, "bytesReceived": 6,
                                       "fileBytesAcknowledged": 384, "blocks": 3, "paused_s": 2.0})"));
  EXPECT_EQ(report["rate"]["step_s"], 0.1);
  EXPECT_EQ(report["rate"]["bytes"][20], 128);
  EXPECT_EQ(report["transfers"], nlohmann::json::parse(
                                     R"([{"sender": "host", "purpose": "file", "text": "", "begin_s": 0.03,
                                          "end_s": 2.11, "bytes": 384, "blocks": 3, "resent": 1,
                                          "result": "complete"}])"));
  EXPECT_EQ(report["retransmissions"],
            nlohmann::json::parse(
                R"([{"time_s": 0.07, "sender": "host", "block": 2, "transfer": "file",
                                                "after": "NAK"}])"));
  EXPECT_EQ(report["pauses"], nlohmann::json::parse(R"([{"end_s": 2.08, "length_s": 2.0}])"));
  EXPECT_EQ(
      report["dialogue"][1],
      nlohmann::json::parse(R"({"time_s": 0.02, "from": "device", "text": "C, asks for blocks with CRC"})"));
  EXPECT_TRUE(report["dialogue"][0]["from"].is_null());
  ASSERT_EQ(report["log"].size(), 1U);
  EXPECT_EQ(report["log"][0]["level"], "Error");
  EXPECT_EQ(report["log"][0]["module"], "Platform");
  EXPECT_EQ(report["log"][0]["message"], "<script>\uFFFD");
}

TEST(RunReport, AsJsonOfARunWithoutAnEndHasNoExitCode) {
  EXPECT_TRUE(nlohmann::json::parse(JsonReport(Script().Host("C").Done(), {}))["exitCode"].is_null());
}

TEST(RunReport, AsAPageHoldsTheRunAndNothingFromElsewhere) {
  const std::string page = HtmlReport(FileInThreeBlocks(), kErrors);
  EXPECT_THAT(page, HasSubstr("<h1 id=\"outcome\" class=\"bad\">The update failed.</h1>"));
  EXPECT_THAT(page, HasSubstr("<td>port-lost</td><td>gone &#60;b&#62;</td>"));
  EXPECT_THAT(page, HasSubstr("<tr><th>Of files acknowledged</th><td>384 bytes</td></tr>"));
  EXPECT_THAT(page, HasSubstr("<td class=\"number\">0.070000</td><td>host</td><td class=\"number\">2</td>"
                              "<td>file</td><td>NAK</td>"));
  EXPECT_THAT(page, HasSubstr("<td>&#60;script&#62;\\xfe</td>"));
  EXPECT_THAT(page, HasSubstr("<td>&#60;p&#62;\\xff</td>"));
  for (const char* outside : {"<script", "src=", "href=", "url(", "@import"}) {
    EXPECT_THAT(page, Not(HasSubstr(outside)));
  }
}

TEST(RunReport, AsAPageBeginsWithWhatTheRunWasOf) {
  Script script;
  script.Add(Kind::Start,
             "time=now\nproperty.updatelist=xmodem;sanyoxmodem\nproperty.xmodemportname=/dev/p\n"
             "property.xmodemsource-image=<i>\nsize.xmodemsource-image=7\nsha256.xmodemsource-image=abc\n");
  const std::string page = HtmlReport(script.Add(Kind::End, "0 Good.").Done(), {});
  EXPECT_THAT(page, HasSubstr("<title>Good. CAN controller, Sanyo device on /dev/p, now</title>"));
  EXPECT_THAT(page, HasSubstr("Good.</h1>\n<table id=\"summary\">\n"
                              "<tr><th>Device</th><td>CAN controller, Sanyo device</td></tr>\n"
                              "<tr><th>Port</th><td>/dev/p</td></tr>\n"
                              "<tr><th>File</th><td>&#60;i&#62;, 7 bytes</td></tr>\n"
                              "<tr><th>SHA-256 of it</th><td>abc</td></tr>\n"
                              "<tr><th>Begun</th><td>now</td></tr>\n"
                              "<tr><th>Result</th><td>Good. Exit code 0.</td></tr>\n</table>\n"
                              "<section id=\"figures\">"));
}

TEST(RunReport, AsAPageFoldsWhatWasSentAgainTooOften) {
  for (const int times : {200, 201}) {
    Script script;
    script.Add(Kind::Opened, "9600 port").Device("C").Host(Block(1, "", kZeroCrc));
    for (int i = 0; i < times; ++i) {
      script.Device("\x15").Host(Block(1, "", kZeroCrc));
    }
    const std::string folded = fmt::format("<summary>{} times a block was sent again</summary>", times);
    EXPECT_EQ(HtmlReport(script.Done(), {}).find(folded) != std::string::npos, times == 201);
  }
}

TEST(RunReport, AsAPageLeavesOutLogLinesThatSayNothing) {
  Script script;
  script.Add(Kind::Log, "Info Platform ").Add(Kind::Log, "Info Platform said");
  const std::string page = HtmlReport(script.Done(), {});
  EXPECT_THAT(page, HasSubstr("<td>said</td>"));
  EXPECT_THAT(page, Not(HasSubstr("<td></td>")));
}

TEST(RunReport, AsAPageOfARunThatDidNotGetFarSaysSo) {
  const std::string page = HtmlReport(Script().Add(Kind::Opened, "9600 port").Done(), {});
  EXPECT_THAT(page, HasSubstr("<h1 id=\"outcome\" class=\"bad\">The run was ended by force.</h1>"));
  for (const char* sentence : {"Nothing of a file has arrived.", "No block was sent again.",
                               "There was no transfer.", "The log is empty.", "The trace does not tell."}) {
    EXPECT_THAT(page, HasSubstr(sentence));
  }
}

TEST(RunReport, BeginsAsOtherFilesDoNot) {
  for (const auto& [file, format] : {std::pair("r.json", Format::Json), std::pair("r.html", Format::Html)}) {
    const std::string report = Render(file, FileInThreeBlocks(), kErrors);
    EXPECT_EQ(report.substr(0, BeginningOf(format).size()), BeginningOf(format));
    EXPECT_THAT(report, HasSubstr("port-lost"));
  }
}

TEST(RunReport, OfASuccessHasNoErrors) {
  const Trace good = Script().Add(Kind::End, "0 x").Done();
  EXPECT_THAT(HtmlReport(good, {}), Not(HasSubstr("What went wrong")));
  EXPECT_EQ(nlohmann::json::parse(JsonReport(good, {}))["errors"], nlohmann::json::array());
}

TEST(RunReport, IsOfTheFormatThatTheFilesNameAsksFor) {
  Format format = Format::Html;
  EXPECT_TRUE(FormatOf("a.b/report.json", format));
  EXPECT_EQ(format, Format::Json);
  EXPECT_TRUE(FormatOf("report.html", format));
  EXPECT_EQ(format, Format::Html);
  EXPECT_TRUE(FormatOf("report.htm", format));
  EXPECT_FALSE(FormatOf("report", format));
  EXPECT_FALSE(FormatOf("report.pdf", format));
}

}  // namespace
