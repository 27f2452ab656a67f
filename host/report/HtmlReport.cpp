#include <fmt/format.h>

#include <algorithm>

#include "Peripherals.h"
#include "report/Figures.h"
#include "report/RunReport.h"
#include "trace/Chart.h"
#include "trace/Steps.h"

namespace host::report {

namespace {

using trace::Dialogue;
using trace::Escaped;
using trace::Frame;
using trace::Transfer;

constexpr int kChartWidth = 1000;
constexpr int kChartHeight = 220;
constexpr int kLeft = 90;
constexpr int kRight = 20;
constexpr int kTop = 20;
constexpr int kBottom = 30;
// More rows than anybody reads from top to bottom.
constexpr std::size_t kMostUnfolded = 200;

constexpr const char* kStyle =
    "body{font:15px/1.4 sans-serif;max-width:1040px;margin:2em auto;padding:0 1em;color:#222;background:#fff}"
    "h1.good{color:#2a7a3b}h1.bad{color:#b3261e}table{border-collapse:collapse;display:block;overflow-x:auto}"
    "td,th{border:1px solid #ccc;padding:.2em .6em;text-align:left}td.number{text-align:right}"
    "svg{max-width:100%;height:auto}#summary td{overflow-wrap:anywhere}"
    ".rate{font:12px sans-serif}.rate rect{fill:#3b5b92}.rate line{stroke:#999}"
    "#log td{font-family:monospace;font-size:12px;overflow-wrap:anywhere}#log .Error td{color:#b3261e}"
    "#log .Warning td{color:#8a5a00}";

std::string Cell(const std::string& text) {
  return fmt::format("<td>{}</td>", Escaped(text));
}

template <typename T>
std::string Number(const T& number) {
  return fmt::format("<td class=\"number\">{}</td>", number);
}

std::string Section(const char* id, const char* title, const std::string& content) {
  return fmt::format("<section id=\"{}\">\n<h2>{}</h2>\n{}</section>\n", id, title, content);
}

// A table with that head, whose rows are cells in <tr>; a sentence when there are none.
std::string Table(const std::vector<const char*>& head, const std::string& rows, const char* none) {
  if (rows.empty()) {
    return fmt::format("<p>{}</p>\n", none);
  }
  std::string table = "<table>\n<tr>";
  for (const char* title : head) {
    table += fmt::format("<th>{}</th>", title);
  }
  return table + "</tr>\n" + rows + "</table>\n";
}

std::string Fact(const char* name, const std::string& value) {
  return fmt::format("<tr><th>{}</th><td>{}</td></tr>\n", name, value);
}

std::string FigureTable(const Figures& figures) {
  const double seconds = static_cast<double>(std::max<std::uint64_t>(figures.duration_us, 1)) / 1e6;
  return "<table>\n" + Fact("Duration", fmt::format("{:.3f} s", seconds)) +
         Fact("Of files acknowledged", fmt::format("{} bytes", figures.acknowledged)) +
         Fact("Mean rate",
              fmt::format("{:.0f} bytes/s", static_cast<double>(figures.acknowledged) / seconds)) +
         Fact("Bytes to the device", fmt::to_string(figures.sent)) +
         Fact("Bytes from the device", fmt::to_string(figures.received)) +
         Fact("Blocks", fmt::to_string(figures.blocks)) +
         Fact("Sent again", fmt::to_string(figures.retransmissions.size())) +
         Fact("In pauses of a second or more", trace::Seconds(figures.paused_us) + " s") + "</table>\n";
}

std::string RateChart(const Rate& rate) {
  const std::uint64_t most = rate.bytes.empty() ? 0 : *std::max_element(rate.bytes.begin(), rate.bytes.end());
  if (most == 0) {
    return "<p>Nothing of a file has arrived.</p>\n";
  }
  constexpr int kWidth = kChartWidth - kLeft - kRight;
  constexpr int kHeight = kChartHeight - kTop - kBottom;
  const double step_s = static_cast<double>(rate.step_us) / 1e6;
  const double column = static_cast<double>(kWidth) / static_cast<double>(rate.bytes.size());
  std::string svg = fmt::format(
      "<svg class=\"rate\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\" role=\"img\" "
      "aria-label=\"Rate over time\">\n",
      kChartWidth, kChartHeight);
  for (std::size_t i = 0; i < rate.bytes.size(); ++i) {
    const double height = kHeight * static_cast<double>(rate.bytes[i]) / static_cast<double>(most);
    svg += fmt::format(
        "<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\"><title>from {:.1f} s: {} "
        "bytes</title></rect>\n",
        kLeft + column * static_cast<double>(i), kTop + kHeight - height, std::max(column - 1, 0.5), height,
        step_s * static_cast<double>(i), rate.bytes[i]);
  }
  svg += fmt::format("<line x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\"/>\n", kLeft, kTop + kHeight,
                     kChartWidth - kRight);
  svg += fmt::format("<text x=\"{}\" y=\"{}\" text-anchor=\"end\">{:.0f} bytes/s</text>\n", kLeft - 6,
                     kTop + 8, static_cast<double>(most) / step_s);
  svg += fmt::format("<text x=\"{}\" y=\"{}\">0 s</text>\n", kLeft, kChartHeight - 10);
  return svg + fmt::format("<text x=\"{}\" y=\"{}\" text-anchor=\"end\">{:.1f} s</text>\n</svg>\n",
                           kChartWidth - kRight, kChartHeight - 10,
                           step_s * static_cast<double>(rate.bytes.size()));
}

std::string RetransmissionTable(const Figures& figures) {
  std::string rows;
  for (const Retransmission& again : figures.retransmissions) {
    rows += "<tr>" + Number(trace::Seconds(again.time_us)) + Cell(trace::Name(again.sender)) +
            Number(again.block) + Cell(again.transfer) + Cell(again.after) + "</tr>\n";
  }
  const std::string table = Table({"Time (s)", "By the", "Block", "Of", "After the other side's"}, rows,
                                  "No block was sent again.");
  const std::size_t count = figures.retransmissions.size();
  return count <= kMostUnfolded ? table
                                : fmt::format(
                                      "<details>\n<summary>{} times a block was sent again</summary>\n"
                                      "{}</details>\n",
                                      count, table);
}

std::string TransferTable(const Dialogue& dialogue) {
  std::string rows;
  for (const Transfer& transfer : dialogue.transfers) {
    rows += "<tr>" + Number(trace::Seconds(transfer.begin_us)) +
            Number(trace::Seconds(transfer.end_us - transfer.begin_us)) + Cell(trace::Name(transfer.sender)) +
            Cell(transfer.Name()) + Number(transfer.size) + Number(transfer.blocks) +
            Number(transfer.resent) + Cell(Name(transfer.result)) + "</tr>\n";
  }
  return Table({"Begin (s)", "Length (s)", "Sender", "What", "Bytes", "Blocks", "Sent again", "Result"}, rows,
               "There was no transfer.");
}

std::string LogTable(const Dialogue& dialogue) {
  std::string rows;
  for (const Frame& frame : dialogue.frames) {
    const trace::LogLine line = frame.kind == Frame::Kind::Log ? LogLineOf(frame) : trace::LogLine();
    if (!line.message.empty()) {
      rows += fmt::format("<tr class=\"{}\">", Escaped(std::string(line.level))) +
              Number(trace::Seconds(frame.begin_us)) + Cell(std::string(line.level)) +
              Cell(std::string(line.module)) + Cell(std::string(line.message)) + "</tr>\n";
    }
  }
  return Table({"Time (s)", "Level", "Module", "Message"}, rows, "The log is empty.");
}

std::string Described(const Dialogue& dialogue, const std::string& key) {
  const auto found = dialogue.description.find(key);
  return found == dialogue.description.end() ? "" : found->second;
}

std::string Devices(const Dialogue& dialogue) {
  std::vector<std::string> names;
  const std::string list = Described(dialogue, std::string("property.") + kUpdateListKey);
  for (const std::string_view entry : UpdateListEntries(list)) {
    const PeripheralKind* kind = FindPeripheralKind(entry);
    names.emplace_back(kind != nullptr ? kind->device : entry);
  }
  return fmt::format("{}", fmt::join(names, ", "));
}

std::string FileFacts(const Dialogue& dialogue) {
  std::string rows;
  for (const std::string& key : FileKeyNames()) {
    const std::string name = Described(dialogue, "property." + key);
    const std::string digest = Described(dialogue, "sha256." + key);
    if (!name.empty()) {
      rows += Fact("File", Escaped(fmt::format("{}, {} bytes", name, Described(dialogue, "size." + key)))) +
              Fact("SHA-256 of it", Escaped(digest.empty() ? "not recorded" : digest));
    }
  }
  return rows;
}

// What people look for first; without a beginning of the run only its result is known.
std::string Summary(const Dialogue& dialogue, const std::string& outcome) {
  if (dialogue.description.empty()) {
    return "";
  }
  const std::string exitCode =
      dialogue.exitCode ? fmt::format(" Exit code {}.", *dialogue.exitCode) : std::string();
  return "<table id=\"summary\">\n" + Fact("Device", Escaped(Devices(dialogue))) +
         Fact("Port", Escaped(Described(dialogue, "property.xmodemportname"))) + FileFacts(dialogue) +
         Fact("Begun", Escaped(Described(dialogue, "time"))) + Fact("Result", outcome + exitCode) +
         "</table>\n";
}

// Tells the pages of several runs apart.
std::string Title(const Dialogue& dialogue, const std::string& outcome) {
  if (dialogue.description.empty()) {
    return outcome;
  }
  return fmt::format("{} {} on {}, {}", outcome, Escaped(Devices(dialogue)),
                     Escaped(Described(dialogue, "property.xmodemportname")),
                     Escaped(Described(dialogue, "time")));
}

std::string RunTable(const Dialogue& dialogue) {
  std::string rows;
  for (const auto& [key, value] : dialogue.description) {
    rows += Fact(Escaped(key).c_str(), Escaped(value));
  }
  return rows.empty() ? "<p>The trace does not tell.</p>\n" : "<table>\n" + rows + "</table>\n";
}

std::string ErrorTable(const Faults& errors) {
  std::string rows;
  for (const Fault& error : errors) {
    const ErrorDescription& description = Describe(error.code);
    rows += "<tr>" + Cell(description.name) + Cell(error.text) + Cell(description.cause) +
            Cell(description.advice) + "</tr>\n";
  }
  return Table({"Code", "What", "Cause", "What to do"}, rows, "Nothing is known to have gone wrong.");
}

}  // namespace

std::string HtmlReport(const trace::Trace& trace, const Faults& errors) {
  const Dialogue dialogue = Understand(trace);
  const Figures figures = Count(dialogue);
  const std::string outcome = Escaped(dialogue.exitCode ? dialogue.outcome : "The run was ended by force.");
  const bool good = dialogue.exitCode == 0;
  return fmt::format(
             "{3}<meta charset=\"utf-8\">\n"
             "<meta name=\"viewport\" content=\"width=device-width\">\n"
             "<title>{4}</title>\n<style>{1}</style>\n"
             "</head>\n<body>\n<h1 id=\"outcome\" class=\"{2}\">{0}</h1>\n",
             outcome, kStyle, good ? "good" : "bad", BeginningOf(Format::Html), Title(dialogue, outcome)) +
         Summary(dialogue, outcome) + (good ? "" : Section("errors", "What went wrong", ErrorTable(errors))) +
         Section("figures", "Figures", FigureTable(figures)) +
         Section("rate", "Rate over time", RateChart(figures.rate)) +
         Section("retransmissions", "Blocks that were sent again", RetransmissionTable(figures)) +
         Section("transfers", "Transfers", TransferTable(dialogue)) +
         Section("timeline", "The dialogue", SequenceChart(dialogue)) +
         Section("run", "The run", RunTable(dialogue)) + Section("log", "The log", LogTable(dialogue)) +
         "</body>\n</html>\n";
}

}  // namespace host::report
