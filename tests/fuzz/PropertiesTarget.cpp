// Goal: whatever the properties hold, the module answers a preparation once, with yes exactly when everything
// that the listed loaders need is there and good; what the host's preflight lets pass the module takes; an
// installation without a port fails and is answered once.
// Method: the input's lines are "key=value". A path lies in a scratch folder with the files "image", "loader"
// and "port" and the folder "folder", and stays there, since each "/" becomes "_". The expectation is
// computed anew.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FeatureEntry.h"
#include "FeatureEvents.h"
#include "PeripheralLoader.h"
#include "Peripherals.h"
#include "Preflight.h"
#include "PropertyStore.h"
#include "RecordingBroker.h"
#include "ScratchPath.h"
#include "SourceFile.h"
#include "Target.h"

extern "C" IFeatureModule2* FeatureCreate2(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker,
                                           IEventBroker& eventBroker, const IFeatureProperties& properties);

namespace fuzz {
namespace {

constexpr std::size_t kMostLoaders = 8;
constexpr long long kLowestSpeed = 75;

void FillScratchFolder() {
  static const bool filled = [] {
    for (const char* name : {"image", "loader", "port"}) {
      Scratch().Write(name, name);
    }
    return mkdir(Scratch().Path("folder").c_str(), 0700) == 0;
  }();
  Promise(filled, "the scratch folder cannot be used");
}

host::PropertyMap Parse(std::string_view input) {
  host::PropertyMap properties;
  while (!input.empty()) {
    std::string_view line = TakeUntil(input, '\n');
    const std::string key(TakeUntil(line, '='));
    properties[key] = InScratch(key, std::string(line));
  }
  return properties;
}

// The number that the text starts with, as far as it matters whether it is at least the lowest speed.
long long SpeedOf(const std::string& text) {
  std::size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
  const bool negative = at < text.size() && text[at] == '-';
  at += at < text.size() && (text[at] == '-' || text[at] == '+') ? 1 : 0;
  long long number = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    number = std::min(number * 10 + (text[at] - '0'), 1'000'000'000LL);
  }
  return negative ? -number : number;
}

bool IsFile(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

bool IsThere(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

bool IsGood(const host::PropertyKey& key, const std::string& value) {
  switch (key.kind) {
    case host::ValueKind::File:
      return IsFile(value);
    case host::ValueKind::Speed:
      return SpeedOf(value) >= kLowestSpeed;
    case host::ValueKind::Port:
      return IsThere(value);
    default:
      return true;
  }
}

bool HasAllThatItNeeds(const host::PeripheralKind& kind, const host::PropertyMap& properties) {
  return std::all_of(kind.requiredKeys.begin(), kind.requiredKeys.end(), [&](const char* name) {
    const auto property = properties.find(name);
    return property != properties.end() && IsGood(*host::FindPropertyKey(name), property->second);
  });
}

std::vector<const host::PeripheralKind*> ListedKinds(const host::PropertyMap& properties) {
  std::vector<const host::PeripheralKind*> kinds;
  const auto list = properties.find(host::kUpdateListKey);
  if (list != properties.end()) {
    for (const std::string_view entry : host::UpdateListEntries(list->second)) {
      if (const host::PeripheralKind* kind = host::FindPeripheralKind(entry)) {
        kinds.push_back(kind);
      }
    }
  }
  return kinds;
}

// The port is a plain file here, and only the preflight minds.
bool PassesThePreflight(const host::PropertyMap& properties) {
  const host::Faults faults = host::CheckProperties(properties).faults;
  return std::all_of(faults.begin(), faults.end(), [](const host::Fault& fault) {
    return fault.text.rfind("xmodemportname: '" + Scratch().Path("port") + "' is no serial port;", 0) == 0;
  });
}

// The flag of the one answer `id` among the posts so far.
bool Answer(const RecordingBroker& broker, TUint32 id) {
  const TFeatureResultPayload* answer = nullptr;
  for (const RecordingBroker::Call& call : broker.Calls()) {
    if (call.kind != RecordingBroker::Call::kPost || call.id != id) {
      continue;
    }
    Promise(answer == nullptr, "an answer comes twice");
    Promise(call.payload.size() == sizeof(TFeatureResultPayload), "an answer of the wrong size");
    answer = reinterpret_cast<const TFeatureResultPayload*>(call.payload.data());
    Promise(std::strcmp(answer->featureId, "feature") == 0, "an answer of another feature");
  }
  Promise(answer != nullptr, "no answer comes");
  return answer->flag != EFalse;
}

}  // namespace

void Run(std::string_view input) {
  FillScratchFolder();
  const host::PropertyMap map = Parse(input);
  const std::vector<const host::PeripheralKind*> kinds = ListedKinds(map);
  if (kinds.size() > kMostLoaders) {
    return;
  }
  host::PropertyStore properties;
  properties.Set("feature", map);
  RecordingBroker broker;
  FakeInterfaceBroker interfaces;
  const std::unique_ptr<IFeatureModule2> module(FeatureCreate2("feature", interfaces, broker, properties));
  auto& object = dynamic_cast<CPeripheralLoader&>(*module);

  object.OnEvent({EUserEvent, EPrepareRequest, 7, "feature"});
  const bool isReady = Answer(broker, EPrepareResult);
  const bool isGood = map.count(host::kUpdateListKey) != 0 &&
                      std::all_of(kinds.begin(), kinds.end(), [&map](const host::PeripheralKind* kind) {
                        return HasAllThatItNeeds(*kind, map);
                      });
  Promise(isReady == isGood, "the preparation's answer is wrong");
  Promise(isReady || !PassesThePreflight(map), "the module refuses what the preflight lets pass");

  object.OnEvent({EUserEvent, EInstallRequest, 7, "feature"});
  Promise(Answer(broker, EInstallResult) == kinds.empty(), "without a port an installation must fail");
}

}  // namespace fuzz
