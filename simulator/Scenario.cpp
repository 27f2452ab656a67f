#include "simulator/Scenario.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "simulator/DumpFiles.h"

// The parser then reports faults in its result instead of throwing them.
#define TOML_EXCEPTIONS 0
// Version 3.3 asserts, or with NDEBUG takes for granted, that a table's header starts with a key's letter,
// although it looks itself and would tell.
#undef NDEBUG
#define TOML_ASSERT(expression) static_cast<void>(0)
#include <toml++/toml.h>

namespace simulator {

namespace {

constexpr std::int64_t kMaxNumber = 0xFFFFFFFF;
constexpr std::size_t kMaxSize_bytes = 1U << 20;

// ---- Values: each reads a node into its target, or is false and leaves it ----

bool Read(const toml::node& node, std::string& text) {
  if (node.is_string()) {
    text = node.as_string()->get();
  }
  return node.is_string();
}

bool Read(const toml::node& node, bool& flag) {
  if (node.is_boolean()) {
    flag = node.as_boolean()->get();
  }
  return node.is_boolean();
}

template <typename Number>
bool ReadNumber(const toml::node& node, std::int64_t least, std::int64_t most, Number& number) {
  const std::int64_t value = node.is_integer() ? node.as_integer()->get() : least - 1;
  if (value < least || value > most) {
    return false;
  }
  number = static_cast<Number>(value);
  return true;
}

bool ReadShare(const toml::node& node, double& share) {
  const double value = node.value<double>().value_or(-1);
  if (!(value >= 0 && value <= 1)) {
    return false;
  }
  share = value;
  return true;
}

bool ReadSeconds(const toml::node& node, Micros& moment) {
  constexpr double kMostSeconds = 1e6;
  const double value = node.value<double>().value_or(-1);
  if (!(value >= 0 && value <= kMostSeconds)) {
    return false;
  }
  moment = static_cast<Micros>(value * static_cast<double>(kSecond));
  return true;
}

bool ReadRefusals(const toml::node& node, std::vector<Refusal>& refusals) {
  if (!node.is_array()) {
    refusals.emplace_back();
    return node.is_string() && ParseRefusal(node.as_string()->get(), refusals.back());
  }
  return std::all_of(node.as_array()->begin(), node.as_array()->end(), [&refusals](const toml::node& each) {
    return !each.is_array() && ReadRefusals(each, refusals);
  });
}

bool ReadSilence(const toml::node& node, Silence& silence) {
  return ParseSilence(
      node.is_integer() ? std::to_string(node.as_integer()->get()) : node.value_or(std::string()), silence);
}

// ---- Keys: one line for each that a table may hold ----

template <typename Target>
struct Key {
  const char* name;
  const char* wants;
  std::function<bool(const toml::node&, Target&)> read;
};

constexpr char kText[] = "a text in quotes";
constexpr char kFlag[] = "true or false";
constexpr char kCount[] = "a whole number from 0 to 4294967295";

using Plan = DevicePlan;
using Node = toml::node;

const std::vector<Key<Plan>>& DeviceKeys() {
  static const auto count = [](auto member) {
    return [member](const Node& n, Plan& p) { return ReadNumber(n, 0, kMaxNumber, member(p)); };
  };
  static const std::vector<Key<Plan>> keys = {
      {"kind", "\"can\" or \"sanyo\"",
       [](const Node& n, Plan& p) { return Read(n, p.kind) && MakeDevice(p.kind, {}) != nullptr; }},
      {"version-text", kText, [](const Node& n, Plan& p) { return Read(n, p.options.version_text); }},
      {"ram-base", kCount, count([](Plan & p) -> auto& { return p.options.ram_base; })},
      {"ram-size", kCount, count([](Plan & p) -> auto& { return p.options.ram_size; })},
      {"flash-base", kCount, count([](Plan & p) -> auto& { return p.options.flash_base; })},
      {"flash-size", kCount, count([](Plan & p) -> auto& { return p.options.flash_size; })},
      {"patience", "seconds from 1 to 3600",
       [](const Node& n, Plan& p) { return ReadNumber(n, 1, kMaxPatience_s, p.options.patience_s); }},
      {"refuse", "a text wr|gt|ck[:N][=ANSWER], or a list of them",
       [](const Node& n, Plan& p) { return ReadRefusals(n, p.options.faults.refusals); }},
      {"silent-after", "one of start, version, wr-ram, gt, wr-flash, ck in quotes, or a number of bytes",
       [](const Node& n, Plan& p) { return ReadSilence(n, p.options.faults.silent_after); }},
      {"slow", "milliseconds from 0 to 3600000",
       [](const Node& n, Plan& p) { return ReadNumber(n, 0, kMaxSlow_ms, p.options.faults.slow_ms); }},
      {"corrupt-flash", kFlag,
       [](const Node& n, Plan& p) { return Read(n, p.options.faults.corrupt_flash); }},
      {"checksum", kFlag, [](const Node& n, Plan& p) { return Read(n, p.options.faults.checksum); }},
      {"nak-every", "a number of blocks from 0 to 1000000",
       [](const Node& n, Plan& p) { return ReadNumber(n, 0, kMaxEvery, p.options.faults.nak_every); }},
      {"nak-eot", kFlag, [](const Node& n, Plan& p) { return Read(n, p.options.faults.nak_first_eot); }},
      {"damage-every", "a number of blocks from 0 to 1000000",
       [](const Node& n, Plan& p) { return ReadNumber(n, 0, kMaxEvery, p.options.faults.damage_every); }},
      {"cancel-after", kCount, count([](Plan & p) -> auto& { return p.options.faults.cancel_after_bytes; })},
  };
  return keys;
}

const std::vector<Key<Settings>>& LineKeys() {
  static const std::vector<Key<Settings>> keys = {
      {"name", kText, [](const Node& n, Settings& s) { return Read(n, s.name); }},
      {"link", kText, [](const Node& n, Settings& s) { return Read(n, s.link); }},
      {"dump-ram", kText, [](const Node& n, Settings& s) { return Read(n, s.dump_ram); }},
      {"dump-flash", kText, [](const Node& n, Settings& s) { return Read(n, s.dump_flash); }},
      {"once", kFlag, [](const Node& n, Settings& s) { return Read(n, s.once); }},
      {"baud", "bits per second from 0 to 100000000",
       [](const Node& n, Settings& s) { return ReadNumber(n, 0, kMaxBaud, s.line.baud); }},
      {"noise", "a share from 0.0 to 1.0",
       [](const Node& n, Settings& s) { return ReadShare(n, s.line.noise_rate); }},
      {"seed", kCount,
       [](const Node& n, Settings& s) { return ReadNumber(n, 0, kMaxNumber, s.line.noise_seed); }},
      {"unplug-after", kCount,
       [](const Node& n, Settings& s) { return ReadNumber(n, 0, kMaxNumber, s.line.unplug_after_bytes); }},
      {"unplug-at", "seconds from 0 to 1000000",
       [](const Node& n, Settings& s) { return ReadSeconds(n, s.line.unplug_at_us); }},
  };
  return keys;
}

// ---- The file ----

/// One pass over a parsed file. Every fault carries the place that the parser remembers for the value.
class Reader {
 public:
  Reader(std::string path, std::vector<std::string>& faults) : iPath(std::move(path)), iFaults(faults) {}

  std::vector<Settings> ReadLines(const toml::table& root) {
    std::vector<Settings> lines;
    for (const auto& [key, value] : root) {
      if (key.str() != "line") {
        Complain(value, fmt::format("unknown key '{}'. Known here: line.", key.str()));
      } else {
        ForEachTable("[[line]]", value, [&](const toml::table& table) { lines.push_back(ReadLine(table)); });
      }
    }
    if (lines.empty() && iFaults.empty()) {
      Complain(root, "there is no line. Begin with [[line]] and, below it, [[line.device]].");
    }
    return lines;
  }

 private:
  Settings ReadLine(const toml::table& table) {
    Settings line;
    for (const auto& [key, value] : table) {
      if (key.str() == "device") {
        ForEachTable("[[line.device]]", value,
                     [&](const toml::table& device) { line.devices.push_back(ReadDevice(device)); });
      } else {
        ReadKey(key.str(), value, LineKeys(), line);
      }
    }
    if (!table.contains("device")) {
      Complain(table, "there is no device on this line. Put [[line.device]] with a kind below it.");
    }
    for (std::string* path : {&line.link, &line.dump_ram, &line.dump_flash}) {
      *path = path->empty() ? "" : (std::filesystem::path(iPath).parent_path() / *path).string();
    }
    CheckPaths(table, line);
    return line;
  }

  void CheckPaths(const toml::table& table, const Settings& line) {
    const std::string link = std::filesystem::path(line.link).lexically_normal().string();
    if (!link.empty() && !iLinks.insert(link).second) {
      Complain(*table.get("link"), "another line has this link already. Each port needs its own.");
    }
    for (const auto& [key, path] : {std::pair("dump-ram", line.dump_ram), {"dump-flash", line.dump_flash}}) {
      if (!AddDumpFiles(path, line.devices.size(), iDumpFiles)) {
        Complain(*table.get(key), "another memory goes into this file already. Each dump needs its own.");
      }
    }
  }

  DevicePlan ReadDevice(const toml::table& table) {
    DevicePlan device;
    for (const auto& [key, value] : table) {
      ReadKey(key.str(), value, DeviceKeys(), device);
    }
    if (!table.contains("kind")) {
      Complain(table, "this device has no kind. Write kind = \"can\" or kind = \"sanyo\".");
    }
    return device;
  }

  template <typename Take>
  void ForEachTable(std::string_view header, const toml::node& node, Take take) {
    const toml::array* const tables = node.as_array();
    if (tables == nullptr || tables->empty() ||
        !std::all_of(tables->begin(), tables->end(), [](auto& each) { return each.is_table(); })) {
      return Complain(node, fmt::format("write {} on a line of its own, once for each.", header));
    }
    for (const toml::node& table : *tables) {
      take(*table.as_table());
    }
  }

  template <typename Target>
  void ReadKey(std::string_view name, const toml::node& value, const std::vector<Key<Target>>& keys,
               Target& target) {
    const auto key =
        std::find_if(keys.begin(), keys.end(), [name](const Key<Target>& each) { return each.name == name; });
    if (key == keys.end()) {
      std::vector<std::string> known;
      std::transform(keys.begin(), keys.end(), std::back_inserter(known),
                     [](const Key<Target>& each) { return each.name; });
      Complain(value, fmt::format("unknown key '{}'. Known here: {}.", name, fmt::join(known, ", ")));
    } else if (!key->read(value, target)) {
      Complain(value, fmt::format("'{}' wants {}.", name, key->wants));
    }
  }

  void Complain(const toml::node& node, const std::string& text) {
    const toml::source_position at = node.source().begin;
    iFaults.push_back(fmt::format("{}:{}:{}: {}", iPath, at.line, at.column, text));
  }

  std::string iPath;
  std::vector<std::string>& iFaults;
  std::set<std::string> iLinks;
  std::set<std::string> iDumpFiles;
};

std::string Unreadable(const std::string& path) {
  return fmt::format("{}: cannot be read: {}. Check the name after --scenario.", path,
                     std::generic_category().message(errno));
}

/// What the file holds; nothing, after a complaint, if it cannot be read or is too long.
std::optional<std::string> ReadWholeFile(const std::string& path, std::vector<std::string>& faults) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) {
    faults.push_back(path + ": this is a folder; name the scenario in it.");
    return std::nullopt;
  }
  std::string text(kMaxSize_bytes + 1, '\0');
  std::ifstream file(path, std::ios::binary);
  if (!file || file.read(text.data(), static_cast<std::streamsize>(text.size())).bad()) {
    faults.push_back(Unreadable(path));
    return std::nullopt;
  }
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > kMaxSize_bytes) {
    faults.push_back(fmt::format("{}: more than {} KiB are no scenario. Check the name after --scenario.",
                                 path, kMaxSize_bytes / 1024));
    return std::nullopt;
  }
  return text;
}

}  // namespace

std::vector<Settings> ReadScenario(const std::string& path, std::vector<std::string>& faults) {
  const std::optional<std::string> text = ReadWholeFile(path, faults);
  if (!text) {
    return {};
  }
  const toml::parse_result result = toml::parse(*text, path);
  if (!result) {
    const toml::source_position at = result.error().source().begin;
    faults.push_back(fmt::format("{}:{}:{}: this is not valid TOML: {}.", path, at.line, at.column,
                                 result.error().description()));
    return {};
  }
  return Reader(path, faults).ReadLines(result.table());
}

}  // namespace simulator
