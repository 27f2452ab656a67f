#include "Peripherals.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <set>

namespace host {

const std::vector<PropertyKey>& PropertyKeys() {
  static const std::vector<PropertyKey> keys = {
      {kUpdateListKey, ValueKind::PeripheralList}, {"xmodemsource-image", ValueKind::File},
      {"xmodemsource-loader", ValueKind::File},    {"xmodemspeed", ValueKind::Speed},
      {"xmodemportname", ValueKind::Port},         {"xmodemramaddress", ValueKind::Address},
      {"xmodemflashaddress", ValueKind::Address},
  };
  return keys;
}

const std::vector<PeripheralKind>& PeripheralKinds() {
  static const std::vector<PeripheralKind> kinds = {
      {"xmodem",
       "CAN controller",
       {"xmodemsource-image", "xmodemsource-loader", "xmodemspeed", "xmodemportname", "xmodemramaddress",
        "xmodemflashaddress"}},
      {"sanyoxmodem", "Sanyo device", {"xmodemsource-image", "xmodemspeed", "xmodemportname"}},
  };
  return kinds;
}

std::vector<std::string_view> UpdateListEntries(std::string_view list) {
  std::vector<std::string_view> entries;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != std::string_view::npos; begin = end + 1) {
    end = list.find(kUpdateListSeparator, begin);
    entries.push_back(list.substr(begin, end == std::string_view::npos ? end : end - begin));
  }
  return entries;
}

const PeripheralKind* FindPeripheralKind(std::string_view entry) {
  for (const PeripheralKind& kind : PeripheralKinds()) {
    if (kind.entry == entry) {
      return &kind;
    }
  }
  return nullptr;
}

const PropertyKey* FindPropertyKey(std::string_view name) {
  for (const PropertyKey& key : PropertyKeys()) {
    if (key.name == name) {
      return &key;
    }
  }
  return nullptr;
}

namespace {

// The edit distance, one row of its table at a time.
std::size_t Distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

// A piece of a name is nearer to it than to what merely has the same length.
std::size_t DistanceOrPiece(std::string_view name, std::string_view candidate) {
  const bool piece = !name.empty() && candidate.find(name) != std::string_view::npos;
  return piece ? 1 : Distance(name, candidate);
}

}  // namespace

std::string NearestName(std::string_view name, const std::vector<std::string>& names) {
  std::string nearest;
  std::size_t nearestDistance = std::numeric_limits<std::size_t>::max();
  for (const std::string& candidate : names) {
    const std::size_t distance = DistanceOrPiece(name, candidate);
    const bool isNear = 2 * distance <= std::max(name.size(), candidate.size());
    if (isNear && distance < nearestDistance) {
      nearest = candidate;
      nearestDistance = distance;
    }
  }
  return nearest;
}

std::vector<std::string> PropertyKeyNames() {
  std::vector<std::string> names;
  for (const PropertyKey& key : PropertyKeys()) {
    names.emplace_back(key.name);
  }
  return names;
}

std::vector<std::string> FileKeyNames() {
  std::vector<std::string> names;
  for (const PropertyKey& key : PropertyKeys()) {
    if (key.kind == ValueKind::File) {
      names.emplace_back(key.name);
    }
  }
  return names;
}

std::vector<std::string> FileKeysOf(std::string_view updateList) {
  std::set<std::string> required;
  for (const std::string_view entry : UpdateListEntries(updateList)) {
    if (const PeripheralKind* kind = FindPeripheralKind(entry)) {
      required.insert(kind->requiredKeys.begin(), kind->requiredKeys.end());
    }
  }
  std::vector<std::string> keys = FileKeyNames();
  keys.erase(std::remove_if(keys.begin(), keys.end(),
                            [&required](const std::string& key) { return required.count(key) == 0; }),
             keys.end());
  return keys;
}

}  // namespace host
