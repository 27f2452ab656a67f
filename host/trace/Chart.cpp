#include "trace/Chart.h"

#include <fmt/format.h>

#include "Logging.h"
#include "trace/Steps.h"

namespace host::trace {

namespace {

constexpr int kWidth = 1000;
constexpr int kHostX = 160;
constexpr int kDeviceX = 840;
constexpr int kMiddleX = (kHostX + kDeviceX) / 2;
constexpr int kTop = 60;
constexpr int kRow = 26;

constexpr const char* kStyle =
    "<style>.chart{font:12px sans-serif}.chart .time{fill:#666;font-family:monospace}"
    ".chart .life{stroke:#999}.chart .head{font-weight:bold}.chart .note{fill:#555;font-style:italic}"
    ".chart .arrow{stroke-width:1.5;fill:none}.chart .good{stroke:#2a7a3b}.chart .bad{stroke:#b3261e}"
    ".chart .plain{stroke:#3b5b92}.chart text.bad{fill:#b3261e;stroke:none}</style>";

const char* ClassOf(Step::Look look) {
  switch (look) {
    case Step::Look::Good:
      return "good";
    case Step::Look::Bad:
      return "bad";
    case Step::Look::Plain:
      return "plain";
  }
  return "";
}

std::string TextAt(int x, int y, const char* anchor, const std::string& classes, const std::string& text) {
  return fmt::format("<text x=\"{}\" y=\"{}\" text-anchor=\"{}\" class=\"{}\">{}</text>\n", x, y, anchor,
                     classes, Escaped(text));
}

std::string Arrow(Side from, int y, const char* look) {
  const int begin = from == Side::Host ? kHostX : kDeviceX;
  const int end = from == Side::Host ? kDeviceX : kHostX;
  const int back = from == Side::Host ? -8 : 8;
  return fmt::format("<path class=\"arrow {}\" d=\"M{} {}H{}m{} -4l{} 4l{} 4\"/>\n", look, begin, y, end,
                     back, -back, back);
}

std::string Row(const Step& step, int y) {
  std::string row = TextAt(kHostX - 12, y + 4, "end", "time", Seconds(step.begin_us));
  if (!step.from) {
    return row +
           TextAt(kMiddleX, y + 4, "middle", step.look == Step::Look::Bad ? "note bad" : "note", step.text);
  }
  const char* look = ClassOf(step.look);
  const std::string colour = step.look == Step::Look::Bad ? "bad" : "label";
  return row + Arrow(*step.from, y + 6, look) + TextAt(kMiddleX, y + 1, "middle", colour, step.text);
}

std::string Lifeline(int x, int height, const char* name) {
  return TextAt(x, kTop - 30, "middle", "head", name) +
         fmt::format("<line class=\"life\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>\n", x, kTop - 20, x,
                     height - 10);
}

}  // namespace

std::string SequenceChart(const Dialogue& dialogue) {
  const std::vector<Step> steps = StepsOf(dialogue, Detail::Condensed);
  const int height = kTop + kRow * static_cast<int>(steps.size()) + 20;
  std::string svg = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"chart\" width=\"{}\" height=\"{}\" viewBox=\"0 0 {} "
      "{}\" role=\"img\" aria-label=\"Sequence chart of the dialogue\">\n{}\n",
      kWidth, height, kWidth, height, kStyle);
  svg += Lifeline(kHostX, height, "Host") + Lifeline(kDeviceX, height, "Device");
  int y = kTop;
  for (const Step& step : steps) {
    svg += Row(step, y);
    y += kRow;
  }
  return svg + "</svg>\n";
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char character : logging::Printable(text)) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte > 0x7e) {
      // It may be a part of a letter, but nobody says of which alphabet.
      escaped += fmt::format("\\x{:02x}", byte);
    } else if (character == '<' || character == '>' || character == '&' || character == '"') {
      escaped += fmt::format("&#{};", byte);
    } else {
      escaped += character;
    }
  }
  return escaped;
}

}  // namespace host::trace
