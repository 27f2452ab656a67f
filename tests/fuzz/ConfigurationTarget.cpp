// Goal: whatever a configuration file holds, people get its properties or faults that name the place; what
// was read and is written out as TOML is read again as the same; no value upsets the checks before an update.
// Method: the input is the file's text; its first lines are also taken as settings of a command line. Before
// the checks see a path, it is moved into an empty scratch folder.
#include <algorithm>
#include <cstdio>
#include <string>

#include "Configuration.h"
#include "Peripherals.h"
#include "Preflight.h"
#include "ScratchPath.h"
#include "Target.h"

namespace fuzz {
namespace {

// Each one that is wrong is compared with every known key, which takes longer than the rest.
constexpr int kMostSettings = 2;
constexpr char kFile[] = "file.toml";

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte == 0x7f || character == '"' || character == '\\') {
      char escape[sizeof "\\u0000"];
      std::snprintf(escape, sizeof escape, "\\u%04X", byte);
      quoted += escape;
    } else {
      quoted += character;
    }
  }
  return quoted + "\"";
}

std::string TextOf(const host::Configuration& configuration) {
  std::string text;
  if (configuration.library) {
    text += "library = " + Quoted(*configuration.library) + "\n";
  }
  if (configuration.featureId) {
    text += "feature-id = " + Quoted(*configuration.featureId) + "\n";
  }
  text += "[properties]\n";
  for (const auto& [key, value] : configuration.properties) {
    text += key + " = " + Quoted(value) + "\n";
  }
  text += "[sha256]\n";
  for (const auto& [key, value] : configuration.digests) {
    text += key + " = " + Quoted(value) + "\n";
  }
  return text;
}

void CheckRead(const host::Configuration& configuration, const host::Faults& faults) {
  for (const host::Fault& fault : faults) {
    Promise(fault.text.rfind(std::string(kFile) + ":", 0) == 0, "a fault does not name its place");
  }
  for (const auto& [key, value] : configuration.properties) {
    Promise(host::FindPropertyKey(key) != nullptr, "a property that no module has");
  }
  Promise(!configuration.library || !configuration.library->empty(), "an empty library");
  Promise(!configuration.featureId || !configuration.featureId->empty(), "an empty feature id");
}

void CheckRoundTrip(const host::Configuration& configuration) {
  host::Faults faults;
  const host::Configuration again = host::ParseConfiguration(TextOf(configuration), kFile, faults);
  Promise(faults.empty(),
          "what was read cannot be read again: " + (faults.empty() ? "" : faults.front().text));
  Promise(again == configuration, "what was read is something else when it is read again");
}

void ApplySettings(std::string_view text, host::Configuration& configuration) {
  for (int i = 0; i < kMostSettings && !text.empty(); ++i) {
    const std::string setting(TakeUntil(text, '\n'));
    const host::Configuration before = configuration;
    host::Faults faults;
    host::ApplySetting(setting, configuration, faults);
    Promise(faults.size() <= 1, "a setting with more than one fault");
    const std::size_t equals = setting.find('=');
    if (faults.empty()) {
      Promise(configuration.properties.at(setting.substr(0, equals)) == setting.substr(equals + 1),
              "a setting has no effect");
    } else {
      Promise(configuration == before, "a faulty setting has an effect");
    }
  }
}

void CheckPreflight(host::PropertyMap properties) {
  for (auto& [key, value] : properties) {
    value = InScratch(key, value);
  }
  // There is neither a file nor a port; only who wants nothing updated needs none.
  const host::Faults faults = host::CheckProperties(properties).faults;
  const auto list = properties.find(host::kUpdateListKey);
  const bool isNothing = list != properties.end() && list->second.empty();
  Promise(isNothing || !faults.empty(), "the checks find nothing to complain of");
  Promise(
      std::none_of(faults.begin(), faults.end(), [](const host::Fault& fault) { return fault.text.empty(); }),
      "a fault without a word");
}

}  // namespace

void Run(std::string_view input) {
  host::Faults faults;
  host::Configuration configuration = host::ParseConfiguration(std::string(input), kFile, faults);
  CheckRead(configuration, faults);
  CheckRoundTrip(configuration);
  ApplySettings(input, configuration);
  CheckPreflight(configuration.properties);
}

}  // namespace fuzz
