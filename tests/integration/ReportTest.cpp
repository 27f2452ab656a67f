// Goal: the page that a run leaves behind shows people what happened. Method: a run against the simulator,
// and the page in a browser, together with a script that measures what the browser has made of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "Files.h"
#include "Process.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr int kSuccess = 0;
constexpr int kUpdateFailed = 6;

// Writes into the page what is visible, how many arrows and columns have a size, and their colours.
constexpr const char* kProbe = R"(<script>
const seen = [];
for (const id of ['outcome', 'summary', 'figures', 'rate', 'retransmissions', 'transfers', 'timeline', 'run', 'log']) {
  const box = document.getElementById(id).getBoundingClientRect();
  seen.push(id + (box.width > 100 && box.height > 20 ? ' is visible' : ' is not visible'));
}
const topOf = (id) => document.getElementById(id).getBoundingClientRect().top;
seen.push('summary before figures ' + (topOf('outcome') < topOf('summary') && topOf('summary') < topOf('figures')));
seen.push('empty messages ' + [...document.querySelectorAll('#log tr td:last-child')].filter((c) => !c.innerText).length);
const shapes = (selector) => [...document.querySelectorAll(selector)];
const count = (selector) => shapes(selector).filter((s) => s.getBBox().width > 0 && s.getBBox().height > 0).length;
seen.push('columns ' + (count('#rate rect') > 0));
seen.push('highest ' + Math.round(Math.max(...shapes('#rate rect').map((s) => s.getBBox().height))));
seen.push('good arrows ' + (count('#timeline path.good') > 10));
seen.push('bad arrows ' + count('#timeline path.bad'));
seen.push('bad is ' + getComputedStyle(document.querySelector('#timeline path.bad')).stroke);
seen.push('resent ' + (document.querySelectorAll('#retransmissions tr').length - 1));
const pageWidth = document.documentElement.scrollWidth;
seen.push('beyond the page ' + shapes('text').filter((s) => s.getBoundingClientRect().right > pageWidth).length);
seen.push('sideways ' + (pageWidth > window.innerWidth));
const last = shapes('#timeline text').pop().getBoundingClientRect();
const chart = document.querySelector('#timeline svg').getBoundingClientRect();
seen.push('last line within the chart ' + (last.bottom <= chart.bottom && last.left >= chart.left));
document.body.insertAdjacentHTML('beforeend', '<pre id="seen">' + seen.join('\n') + '\n</pre>');
</script>)";

class Report : public testing::Test {
 protected:
  int Run(const std::string& report, const std::vector<std::string>& faults) {
    iFolder.Write("loader.bin", std::string(3000, 'l'));
    iFolder.Write("firmware.bin", std::string(10'000, 'f'));
    std::vector<std::string> arguments = {"--device",           "can",    "--link",
                                          iFolder.Path("port"), "--baud", "115200"};
    arguments.insert(arguments.end(), faults.begin(), faults.end());
    Process simulator(BOOTLOADER_SIMULATOR, arguments);
    EXPECT_TRUE(simulator.WaitForOutput("port: "));
    const std::string config = iFolder.Write(
        "can.toml",
        "[properties]\nupdatelist = \"xmodem\"\nxmodemsource-image = \"firmware.bin\"\n"
        "xmodemsource-loader = \"loader.bin\"\nxmodemspeed = 115200\nxmodemportname = \"" +
            iFolder.Path("port") + "\"\nxmodemramaddress = \"1000\"\nxmodemflashaddress = \"8000\"\n");
    Process run(PERIPHERALCTL, {"update", "--config", config, "--report", report});
    const int status = run.WaitForEnd();
    iOutput = run.Output();
    return status;
  }

  // The page as the browser sees it.
  std::string InBrowser(const std::string& page) {
    Process browser(BROWSER,
                    {"--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
                     "--disable-component-update", "--disable-sync", "--window-size=1200,900",
                     "--user-data-dir=" + iFolder.Path("browser"), "--dump-dom", "file://" + page});
    EXPECT_EQ(browser.WaitForEnd(), kSuccess) << "The browser " BROWSER
                                                 " is needed; script/bootstrap --full "
                                                 "installs it.\n"
                                              << browser.Output();
    return browser.Output();
  }

  const TemporaryFolder iFolder;
  std::string iOutput;
};

// Of the ten blocks of the image, every fifth that arrives is rejected.
TEST_F(Report, AsAPageShowsTheRunInABrowser) {
  const std::string page = iFolder.Path("report.html");
  ASSERT_EQ(Run(page, {"--nak-every", "5", "--once"}), kSuccess) << iOutput;
  const std::string probed = iFolder.Write("probed.html", ContentOf(page) + kProbe);
  const std::string seen = InBrowser(probed);
  EXPECT_THAT(
      seen,
      HasSubstr(
          "<pre id=\"seen\">outcome is visible\nsummary is visible\nfigures is visible\nrate is visible\n"
          "retransmissions is visible\ntransfers is visible\ntimeline is visible\n"
          "run is visible\nlog is visible\nsummary before figures true\nempty messages 0\ncolumns "
          "true\nhighest 170\ngood arrows true\n"
          "bad arrows 4\nbad is rgb(179, 38, 30)\nresent 2\nbeyond the page 0\nsideways false\n"
          "last line within the chart true\n</pre>"));
  EXPECT_THAT(seen, AllOf(HasSubstr("<h1 id=\"outcome\" class=\"good\">The update has succeeded.</h1>"),
                          HasSubstr("<td>file for 8000</td><td>NAK</td>"), HasSubstr("command \"wr 8000\""),
                          HasSubstr("<td>Received answer 000</td>")));
}

TEST_F(Report, AsJsonTellsOfAFailure) {
  const std::string report = iFolder.Path("report.json");
  EXPECT_EQ(Run(report, {"--refuse", "gt"}), kUpdateFailed) << iOutput;
  const auto content = nlohmann::json::parse(ContentOf(report));
  EXPECT_EQ(content["exitCode"], kUpdateFailed);
  EXPECT_EQ(content["outcome"], "The update failed.");
  EXPECT_EQ(content["transfers"].back()["text"], "001");
  EXPECT_EQ(content["figures"]["fileBytesAcknowledged"], 3 * 1024);
  struct stat status = {};
  ASSERT_EQ(stat(report.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 022, 0U);
}

TEST_F(Report, ThatCannotBeWrittenIsRefusedBeforeTheRun) {
  EXPECT_EQ(Run("/nowhere/report.html", {}), 2);
  EXPECT_EQ(iOutput,
            "peripheralctl: cannot write the report '/nowhere/report.html': No such file or directory. "
            "Choose another file after --report.\n");
  EXPECT_EQ(Run(iFolder.Path("report.pdf"), {}), 2);
  EXPECT_THAT(iOutput, HasSubstr("the name must end in .html or .json"));
}

}  // namespace
