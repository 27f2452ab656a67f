// What the module's properties are and which of them each kind of peripheral needs. The one place that knows.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace host {

/// What a property's value means, and so how it is read and checked.
enum class ValueKind { PeripheralList, File, Speed, Port, Address };

/// One property of the module.
struct PropertyKey {
  const char* name;
  ValueKind kind;
};

/// A kind of peripheral: its entry in the update list, its name for people, and the keys that it needs.
struct PeripheralKind {
  const char* entry;
  const char* device;
  std::vector<const char*> requiredKeys;
};

/// The key that lists the peripherals.
constexpr const char* kUpdateListKey = "updatelist";

/// What stands between its entries.
constexpr char kUpdateListSeparator = ';';

/// Every key that the module reads.
const std::vector<PropertyKey>& PropertyKeys();

/// Every kind of peripheral that an update list may hold.
const std::vector<PeripheralKind>& PeripheralKinds();

/// The entries of an update list, as they stand between its semicolons. They point into `list`.
std::vector<std::string_view> UpdateListEntries(std::string_view list);

/// The kind of that entry, or null when there is none.
const PeripheralKind* FindPeripheralKind(std::string_view entry);

/// The key of that name, or null when the module has none.
const PropertyKey* FindPropertyKey(std::string_view name);

/// The name among `names` that takes the fewest changes of a letter to get from `name`; empty when each takes
/// more than half of its letters.
std::string NearestName(std::string_view name, const std::vector<std::string>& names);

/// The names of all property keys.
std::vector<std::string> PropertyKeyNames();

/// The names of the keys that name files.
std::vector<std::string> FileKeyNames();

/// The keys of the files that the peripherals of an update list are sent, in the order of the keys; entries
/// of no kind are sent none.
std::vector<std::string> FileKeysOf(std::string_view updateList);

}  // namespace host
