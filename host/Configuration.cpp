#include "Configuration.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "Peripherals.h"

// The parser then reports faults in its result instead of throwing them.
#define TOML_EXCEPTIONS 0
// Version 3.3 asserts, or with NDEBUG takes for granted, that a table's header such as [%] starts with a
// key's letter, although it looks itself and would tell. A typing error must end neither the program nor in
// chance.
#undef NDEBUG
#define TOML_ASSERT(expression) static_cast<void>(0)
#include <toml++/toml.h>

namespace host {

namespace {

constexpr std::size_t kMaxSize_bytes = 1u << 20;
constexpr const char* kModuleTable = "module";
constexpr const char* kPropertiesTable = "properties";
constexpr const char* kDigestsTable = "sha256";
constexpr std::size_t kDigestDigits = 64;
constexpr const char* kLibraryKey = "library";
constexpr const char* kFeatureIdKey = "feature-id";

char LowerCase(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

std::string UnknownKey(std::string_view where, std::string_view key, const std::vector<std::string>& known) {
  const std::string near = NearestName(key, known);
  const std::string hint = near.empty() ? "." : fmt::format("; did you mean '{}'?", near);
  return fmt::format("{}: unknown key '{}'{} Known here: {}.", where, key, hint, fmt::join(known, ", "));
}

// One pass over a parsed file. Every fault carries the place that the parser remembers for the value.
class FileReader {
 public:
  FileReader(std::string path, Faults& faults) : iPath(std::move(path)), iFaults(faults) {}

  Configuration Read(const toml::table& root) {
    for (const auto& [key, value] : root) {
      ReadTopLevel(key.str(), value);
    }
    return iConfiguration;
  }

 private:
  void ReadTopLevel(std::string_view key, const toml::node& value) {
    if (key == kModuleTable) {
      ReadTable(key, value, [this](std::string_view k, const toml::node& v) { ReadModuleKey(k, v); });
    } else if (key == kPropertiesTable) {
      ReadTable(key, value, [this](std::string_view k, const toml::node& v) { ReadProperty(k, v); });
    } else if (key == kDigestsTable) {
      ReadTable(key, value, [this](std::string_view k, const toml::node& v) { ReadDigest(k, v); });
    } else if (key == kLibraryKey || key == kFeatureIdKey) {
      ReadModuleKey(key, value);
    } else if (FindPropertyKey(key) != nullptr) {
      Fault(value, fmt::format("'{}' belongs under [{}].", key, kPropertiesTable));
      iConfiguration.misread.emplace(key);
    } else {
      MisreadTable(AddUnknownKey(
          value, key, {kLibraryKey, kFeatureIdKey, kModuleTable, kPropertiesTable, kDigestsTable}));
    }
  }

  template <typename ReadKey>
  void ReadTable(std::string_view name, const toml::node& node, ReadKey readKey) {
    const toml::table* table = node.as_table();
    if (table == nullptr) {
      Fault(node, fmt::format("'{0}' must be a table: write [{0}] on a line of its own.", name));
      MisreadTable(name);
      return;
    }
    for (const auto& [key, value] : *table) {
      readKey(key.str(), value);
    }
  }

  // What such a table was to say is not missing for that.
  void MisreadTable(std::string_view table) {
    if (table == kPropertiesTable) {
      const std::vector<std::string> names = PropertyKeyNames();
      iConfiguration.misread.insert(names.begin(), names.end());
    } else if (table == kDigestsTable) {
      const std::vector<std::string> names = FileKeyNames();
      iConfiguration.misreadDigests.insert(names.begin(), names.end());
    }
  }

  void ReadModuleKey(std::string_view key, const toml::node& value) {
    if (key != kLibraryKey && key != kFeatureIdKey) {
      AddUnknownKey(value, key, {kLibraryKey, kFeatureIdKey});
      return;
    }
    const std::optional<std::string> text = ReadText(key, value);
    std::optional<std::string>& target =
        key == kLibraryKey ? iConfiguration.library : iConfiguration.featureId;
    if (text && target) {
      Fault(value, fmt::format("'{}' is given twice: at the top and in [{}]. Keep one.", key, kModuleTable));
    } else if (text && text->empty()) {
      Fault(value, fmt::format("'{}' is empty; leave it out for the default.", key));
    } else if (text) {
      const bool path = key == kLibraryKey && text->find('/') != std::string::npos;
      target = path ? FromFolder(*text) : *text;
    }
  }

  void ReadProperty(std::string_view name, const toml::node& value) {
    const PropertyKey* key = FindPropertyKey(name);
    if (key == nullptr) {
      iConfiguration.misread.insert(AddUnknownKey(value, name, PropertyKeyNames()));
      return;
    }
    if (const std::optional<std::string> text = ReadValue(*key, value)) {
      iConfiguration.properties[key->name] = *text;
    } else {
      iConfiguration.misread.insert(key->name);
    }
  }

  void ReadDigest(std::string_view name, const toml::node& value) {
    const std::vector<std::string> names = FileKeyNames();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      iConfiguration.misreadDigests.insert(AddUnknownKey(value, name, names));
      return;
    }
    iConfiguration.misreadDigests.emplace(name);
    std::optional<std::string> digits = ReadText(name, value);
    if (!digits) {
      return;
    }
    std::transform(digits->begin(), digits->end(), digits->begin(), LowerCase);
    if (digits->size() != kDigestDigits ||
        digits->find_first_not_of("0123456789abcdef") != std::string::npos) {
      Fault(value, fmt::format("'{}' must be the {} hexadecimal digits that sha256sum prints.", name,
                               kDigestDigits));
      return;
    }
    iConfiguration.digests[std::string(name)] = *digits;
    iConfiguration.misreadDigests.erase(std::string(name));
  }

  std::optional<std::string> ReadValue(const PropertyKey& key, const toml::node& value) {
    switch (key.kind) {
      case ValueKind::PeripheralList:
        return value.is_array() ? ReadList(key.name, *value.as_array()) : ReadText(key.name, value);
      case ValueKind::Speed:
        return value.is_integer() ? std::to_string(value.as_integer()->get()) : ReadText(key.name, value);
      case ValueKind::Address:
        return ReadAddress(key.name, value);
      case ValueKind::File:
        return FromFolder(ReadText(key.name, value));
      case ValueKind::Port:
        break;
    }
    return ReadText(key.name, value);
  }

  std::optional<std::string> ReadText(std::string_view key, const toml::node& value) {
    if (!value.is_string()) {
      Fault(value, fmt::format("'{0}' must be text in quotes, such as {0} = \"...\".", key));
      return std::nullopt;
    }
    return value.as_string()->get();
  }

  std::optional<std::string> ReadAddress(std::string_view key, const toml::node& value) {
    if (value.is_number()) {
      Fault(value, fmt::format("'{0}' must be text in quotes, such as {0} = \"...\": the device gets the "
                               "address as it is written, but TOML turns a bare 0x1000 into 4096.",
                               key));
      return std::nullopt;
    }
    return ReadText(key, value);
  }

  std::optional<std::string> ReadList(std::string_view key, const toml::array& entries) {
    std::vector<std::string> texts;
    for (const toml::node& entry : entries) {
      if (!entry.is_string()) {
        Fault(entry, fmt::format("'{0}' must hold texts in quotes, such as {0} = [\"xmodem\"].", key));
        return std::nullopt;
      }
      texts.push_back(entry.as_string()->get());
    }
    return fmt::format("{}", fmt::join(texts, ";"));
  }

  // An empty path stays empty, so that it is reported as such and not as the folder.
  std::optional<std::string> FromFolder(const std::optional<std::string>& path) const {
    if (!path || path->empty()) {
      return path;
    }
    return (std::filesystem::path(iPath).parent_path() / *path).string();
  }

  std::string At(const toml::node& value) const {
    const toml::source_position begin = value.source().begin;
    return fmt::format("{}:{}:{}", iPath, begin.line, begin.column);
  }

  void Fault(const toml::node& value, const std::string& text) {
    iFaults.push_back({ErrorCode::ConfigInvalid, fmt::format("{}: {}", At(value), text)});
  }

  // Returns the name that was probably meant, empty when none is near.
  std::string AddUnknownKey(const toml::node& value, std::string_view key,
                            const std::vector<std::string>& known) {
    iFaults.push_back({ErrorCode::ConfigInvalid, UnknownKey(At(value), key, known)});
    return NearestName(key, known);
  }

  std::string iPath;
  Faults& iFaults;
  Configuration iConfiguration;
};

Fault Unreadable(const std::string& path, int error) {
  return {ErrorCode::ConfigUnreadable,
          fmt::format("{}: cannot read the configuration file: {}. Check the name after --config.", path,
                      std::generic_category().message(error))};
}

std::optional<std::string> ReadWholeFile(const std::string& path, Faults& faults) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) {
    faults.push_back({ErrorCode::ConfigUnreadable,
                      fmt::format("{}: this is a folder; name the configuration file in it.", path)});
    return std::nullopt;
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    faults.push_back(Unreadable(path, errno));
    return std::nullopt;
  }
  std::string text(kMaxSize_bytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (file.bad()) {
    faults.push_back(Unreadable(path, errno));
    return std::nullopt;
  }
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > kMaxSize_bytes) {
    faults.push_back({ErrorCode::ConfigUnreadable,
                      fmt::format("{}: more than {} KiB are no configuration. Check the name after --config.",
                                  path, kMaxSize_bytes / 1024)});
    return std::nullopt;
  }
  return text;
}

Configuration Unknown() {
  Configuration unknown;
  unknown.isKnown = false;
  return unknown;
}

}  // namespace

Configuration ReadConfiguration(const std::string& path, Faults& faults) {
  const std::optional<std::string> text = ReadWholeFile(path, faults);
  return text ? ParseConfiguration(*text, path, faults) : Unknown();
}

Configuration ParseConfiguration(const std::string& text, const std::string& path, Faults& faults) {
  const toml::parse_result result = toml::parse(text, path);
  if (!result) {
    const toml::source_position at = result.error().source().begin;
    faults.push_back(
        {ErrorCode::ConfigInvalid, fmt::format("{}:{}:{}: this is not valid TOML: {}.", path, at.line,
                                               at.column, result.error().description())});
    return Unknown();
  }
  return FileReader(path, faults).Read(result.table());
}

void ApplySetting(const std::string& setting, Configuration& configuration, Faults& faults) {
  const std::size_t equals = setting.find('=');
  if (equals == std::string::npos) {
    faults.push_back({ErrorCode::ConfigInvalid,
                      fmt::format("--set {}: the '=' is missing; write --set key=value.", setting)});
    return;
  }
  const std::string key = setting.substr(0, equals);
  if (FindPropertyKey(key) == nullptr) {
    faults.push_back({ErrorCode::ConfigInvalid, UnknownKey("--set " + setting, key, PropertyKeyNames())});
    configuration.misread.insert(NearestName(key, PropertyKeyNames()));
    return;
  }
  configuration.properties[key] = setting.substr(equals + 1);
  configuration.misread.erase(key);
}

}  // namespace host
