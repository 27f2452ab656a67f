#include "simulator/Options.h"

#include <charconv>
#include <map>

namespace simulator {

namespace {

constexpr std::size_t kVerbSize = 2;

template <typename Number>
bool ParseNumber(const std::string& text, Number& number) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  return result.ec == std::errc() && result.ptr == end;
}

bool ParseOccurrence(const std::string& text, int& occurrence) {
  if (text.empty()) {
    return true;
  }
  return text[0] == ':' && ParseNumber(text.substr(1), occurrence) && occurrence >= 0;
}

}  // namespace

bool ParseRefusal(const std::string& text, Refusal& refusal) {
  Refusal parsed;
  const std::size_t equals = text.find('=');
  if (equals != std::string::npos) {
    parsed.answer = text.substr(equals + 1);
  }
  const std::string command = text.substr(0, equals);
  parsed.verb = command.substr(0, kVerbSize);
  if (parsed.verb != "wr" && parsed.verb != "gt" && parsed.verb != "ck") {
    return false;
  }
  if (!ParseOccurrence(command.substr(kVerbSize), parsed.occurrence)) {
    return false;
  }
  refusal = parsed;
  return true;
}

bool ParseSilence(const std::string& text, Silence& silence) {
  static const std::map<std::string, SilentStage> kStages = {
      {"start", SilentStage::kStart},         {"version", SilentStage::kVersion},
      {"wr-ram", SilentStage::kWriteRam},     {"gt", SilentStage::kGo},
      {"wr-flash", SilentStage::kWriteFlash}, {"ck", SilentStage::kCheck}};
  const auto stage = kStages.find(text);
  if (stage != kStages.end()) {
    silence = Silence{stage->second, 0};
    return true;
  }
  std::uint64_t bytes = 0;
  if (!ParseNumber(text, bytes) || bytes == 0) {
    return false;
  }
  silence = Silence{SilentStage::kBytes, bytes};
  return true;
}

}  // namespace simulator
