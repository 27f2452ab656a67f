#include "Scenario.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <sstream>

#include "Storm.h"

namespace proving {

namespace {

// In the order of resources::Call.
constexpr const char* kCalls[] = {"malloc", "fopen", "fread", "thread"};

bool ParseFailingCall(const std::string& text, Scenario& scenario) {
  const auto colon = text.find(':');
  const auto* const found = std::find(std::begin(kCalls), std::end(kCalls), text.substr(0, colon));
  if (colon == std::string::npos || found == std::end(kCalls)) {
    return false;
  }
  scenario.failingCall = static_cast<resources::Call>(found - std::begin(kCalls));
  scenario.failingCallNumber =
      static_cast<std::uint32_t>(std::strtoul(text.c_str() + colon + 1, nullptr, 10));
  return scenario.failingCallNumber != 0;
}

bool ParseWhatFails(const std::string& text, Scenario& scenario) {
  if (text == "none" || ParseFailingCall(text, scenario)) {
    return true;
  }
  const auto fault = ParseFault(text);
  if (fault) {
    scenario.faults.push_back(*fault);
  }
  return fault.has_value();
}

}  // namespace

std::string BaseId(const std::string& device, bool checksum, std::uint32_t imageSize) {
  return device + (checksum ? "/sum/" : "/crc/") + std::to_string(imageSize);
}

std::string Text(resources::Call call, std::uint32_t number) {
  return kCalls[static_cast<std::size_t>(call)] + (":" + std::to_string(number));
}

std::optional<Scenario> ParseScenario(const std::string& id) {
  std::array<std::string, 4> parts;
  std::stringstream stream(id);
  for (std::string& part : parts) {
    std::getline(stream, part, '/');
  }
  if (parts[0] == "storm" && !parts[1].empty() && parts[2].empty()) {
    return MakeStorm(std::strtoull(parts[1].c_str(), nullptr, 10));
  }
  Scenario scenario;
  scenario.id = id;
  scenario.devices = {parts[0]};
  scenario.options.faults.checksum = parts[1] == "sum";
  scenario.imageSize = static_cast<std::uint32_t>(std::strtoul(parts[2].c_str(), nullptr, 10));
  const bool known = (parts[0] == "can" || parts[0] == "sanyo") && (parts[1] == "crc" || parts[1] == "sum") &&
                     parts[2].find_first_not_of("0123456789") == std::string::npos && !parts[2].empty();
  return known && ParseWhatFails(parts[3], scenario) ? std::optional(scenario) : std::nullopt;
}

}  // namespace proving
