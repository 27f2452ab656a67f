#include "Help.h"

#include <algorithm>
#include <sstream>
#include <string_view>

namespace host {

namespace {

constexpr std::size_t kNarrowIndent = 6;

bool BeginsWhatIsCopied(const std::string& line) {
  return line == "Examples:" || line == "A configuration file:";
}

// Where the line may end that has so much room: at a blank, else in a list of words, else behind the word.
std::size_t EndOfLine(std::string_view text, std::size_t room) {
  if (text.size() <= room) {
    return text.size();
  }
  const std::size_t blank = text.rfind(' ', room);
  if (blank != std::string_view::npos && blank > 0) {
    return blank;
  }
  const std::size_t comma = text.rfind(',', room - 1);
  return comma != std::string_view::npos ? comma + 1 : std::min(text.find(' '), text.size());
}

// Lines that all begin at the same column, the first one on a line that has come that far.
std::string Filled(std::string_view text, std::size_t indent, std::size_t columns) {
  std::string lines;
  while (!text.empty()) {
    const std::size_t end = EndOfLine(text, std::max(columns, indent + 1) - indent);
    lines += (lines.empty() ? "" : "\n" + std::string(indent, ' ')) + std::string(text.substr(0, end));
    text.remove_prefix(std::min(text.find_first_not_of(' ', end), text.size()));
  }
  return lines;
}

// A description keeps its column, unless that leaves it too little room: then it goes below what it is of.
std::string Wrapped(const std::string& line, std::size_t columns) {
  const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
  const std::size_t gap = line.rfind("  ");
  const std::size_t description = gap == std::string::npos ? begin : std::max(begin, gap + 2);
  if (line.size() <= columns) {
    return line;
  }
  if (description <= columns / 2) {
    return line.substr(0, description) + Filled(line.substr(description), description, columns);
  }
  const std::string head = line.substr(begin, line.find_last_not_of(' ', description - 1) + 1 - begin);
  const std::string below =
      std::string(kNarrowIndent, ' ') + Filled(line.substr(description), kNarrowIndent, columns);
  return begin == description ? below
                              : line.substr(0, begin) + Filled(head, kNarrowIndent, columns) + "\n" + below;
}

}  // namespace

std::string WrapHelp(const std::string& help, int columns) {
  std::istringstream lines(help);
  std::string wrapped;
  bool isCopied = false;
  for (std::string line; std::getline(lines, line);) {
    isCopied = BeginsWhatIsCopied(line) || (isCopied && !line.empty());
    wrapped += (isCopied ? line : Wrapped(line, static_cast<std::size_t>(columns))) + "\n";
  }
  return wrapped;
}

}  // namespace host
