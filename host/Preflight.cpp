#include "Preflight.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include "Digest.h"
#include "Groups.h"
#include "LineSpeed.h"
#include "Peripherals.h"
#include "Ports.h"

namespace host {

namespace {

constexpr long long kMinSpeed_bps = 75;
constexpr long long kMaxSpeed_bps = std::numeric_limits<TInt32>::max();
constexpr const char* kBlanks = " \t";
// What the module can count in a file.
constexpr long long kMaxFileSize_bytes = std::numeric_limits<TInt32>::max();

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsLetterOrDigit(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) {
    return {};
  }
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string KnownEntries() {
  std::vector<std::string> known;
  for (const PeripheralKind& kind : PeripheralKinds()) {
    known.push_back(fmt::format("\"{}\" ({})", kind.entry, kind.device));
  }
  return fmt::format("{}", fmt::join(known, " and "));
}

// Nothing when it is none that the module takes.
std::optional<TUint32> SpeedOf(const std::string& text) {
  constexpr std::size_t kMaxDigits = 10;
  const bool digits = !text.empty() && std::all_of(text.begin(), text.end(), IsDigit);
  const long long speed_bps = digits && text.size() <= kMaxDigits ? std::stoll(text) : 0;
  return speed_bps >= kMinSpeed_bps && speed_bps <= kMaxSpeed_bps
             ? std::make_optional(static_cast<TUint32>(speed_bps))
             : std::nullopt;
}

std::string Reason() {
  return std::generic_category().message(errno);
}

// The master side of a pseudo-terminal passes for a terminal too, but only its other side is a port.
bool IsSerialPort(int descriptor) {
  unsigned number = 0;
  return isatty(descriptor) != 0 && ioctl(descriptor, TIOCGPTN, &number) != 0;
}

// The checks share what they find: the faults, and the keys that the listed peripherals need.
class Checker {
 public:
  Checker(const PropertyMap& properties, const CheckRules& rules) : iProperties(properties), iRules(rules) {}

  Findings Check() {
    CheckList();
    CheckRequiredKeys();
    for (const PropertyKey& key : PropertyKeys()) {
      CheckValueIfUsed(key);
    }
    return {iFaults, iFiles, iWarnings};
  }

 private:
  void CheckList() {
    const auto list = iProperties.find(kUpdateListKey);
    if (list == iProperties.end()) {
      iListFaulty = true;
      if (iRules.misread.count(kUpdateListKey) != 0) {
        return;
      }
      Fault(ErrorCode::PropertyMissing, "{}: missing; say which peripherals to update, known are {}.",
            kUpdateListKey, KnownEntries());
      return;
    }
    if (list->second.empty()) {
      return;
    }
    const std::vector<std::string_view> entries = UpdateListEntries(list->second);
    CheckSpelling(list->second, entries);
    for (const std::string_view entry : entries) {
      CheckEntry(Trimmed(entry));
    }
  }

  void CheckSpelling(const std::string& list, const std::vector<std::string_view>& entries) {
    std::vector<std::string_view> proper;
    for (const std::string_view entry : entries) {
      if (!Trimmed(entry).empty()) {
        proper.push_back(Trimmed(entry));
      }
    }
    const std::string suggestion = proper.empty() ? "xmodem" : fmt::format("{}", fmt::join(proper, ";"));
    if (proper != entries) {
      iListFaulty = true;
      Fault(ErrorCode::PropertyInvalid,
            "{} \"{}\": entries must be neither empty nor have blanks around them; write \"{}\".",
            kUpdateListKey, list, suggestion);
    }
  }

  void CheckEntry(std::string_view entry) {
    if (entry.empty()) {
      return;
    }
    const PeripheralKind* kind = FindPeripheralKind(entry);
    if (kind == nullptr) {
      iListFaulty = true;
      Fault(ErrorCode::PropertyInvalid, "{}: unknown peripheral \"{}\"; known are {}.", kUpdateListKey, entry,
            KnownEntries());
      return;
    }
    iRequired.insert(kind->requiredKeys.begin(), kind->requiredKeys.end());
  }

  void CheckRequiredKeys() {
    std::vector<std::string> missing;
    for (const PropertyKey& key : PropertyKeys()) {
      if (iRequired.count(key.name) != 0 && iProperties.count(key.name) == 0 &&
          iRules.misread.count(key.name) == 0) {
        missing.emplace_back(key.name);
      }
    }
    if (!missing.empty()) {
      Fault(ErrorCode::PropertyMissing,
            "missing properties: {}. Add them under [properties] in the configuration file, or with --set "
            "{}=...",
            fmt::join(missing, ", "), missing.front());
    }
  }

  // A value that no listed peripheral reads may be anything, unless the list itself is not understood.
  void CheckValueIfUsed(const PropertyKey& key) {
    const auto property = iProperties.find(key.name);
    if (property == iProperties.end() || (iRequired.count(key.name) == 0 && !iListFaulty)) {
      return;
    }
    const std::string& value = property->second;
    if (std::any_of(value.begin(), value.end(), IsControl)) {
      Fault(ErrorCode::PropertyInvalid,
            "{}: the value holds a control character (a line break, a tab or the like); remove it.",
            key.name);
      return;
    }
    CheckValue(key, value);
  }

  void CheckValue(const PropertyKey& key, const std::string& value) {
    switch (key.kind) {
      case ValueKind::PeripheralList:
        break;
      case ValueKind::File:
        CheckFile(key.name, value);
        break;
      case ValueKind::Speed:
        CheckSpeed(key.name, value);
        break;
      case ValueKind::Port:
        CheckPort(key.name, value);
        break;
      case ValueKind::Address:
        CheckAddress(key.name, value);
        break;
    }
  }

  void CheckFile(const char* key, const std::string& path) {
    struct stat status = {};
    if (path.empty()) {
      Fault(ErrorCode::FileUnusable, "{}: the file name is empty; name the file to send.", key);
    } else if (stat(path.c_str(), &status) != 0) {
      Fault(
          ErrorCode::FileUnusable,
          "{}: cannot find the file '{}': {}. Check the path; in a configuration file it is relative to that "
          "file's folder.",
          key, path, Reason());
    } else if (S_ISDIR(status.st_mode)) {
      Fault(ErrorCode::FileUnusable, "{}: '{}' is a folder; name the file in it.", key, path);
    } else if (!S_ISREG(status.st_mode)) {
      Fault(ErrorCode::FileUnusable,
            "{}: '{}' is not a regular file; copy the content to a file and name that.", key, path);
    } else if (status.st_size == 0) {
      Fault(ErrorCode::FileUnusable, "{}: the file '{}' is empty; there is nothing to send. Fetch it again.",
            key, path);
    } else if (status.st_size > kMaxFileSize_bytes) {
      Fault(ErrorCode::FileUnusable,
            "{}: the file '{}' is too large: {} bytes; at most {} can be sent. Is it the right file?", key,
            path, status.st_size, kMaxFileSize_bytes);
    } else {
      CheckReadable(key, path);
    }
  }

  void CheckReadable(const char* key, const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (descriptor < 0) {
      Fault(ErrorCode::FileUnusable, "{}: cannot read the file '{}': {}. Check its permissions.", key, path,
            Reason());
      return;
    }
    close(descriptor);
    CheckDigest(key, path);
  }

  void CheckDigest(const char* key, const std::string& path) {
    const auto expected = iRules.expected.find(key);
    if (expected == iRules.expected.end()) {
      CheckWithoutDigest(key, path);
      return;
    }
    const std::optional<std::string> actual = Sha256Of(path);
    if (!actual) {
      Fault(ErrorCode::FileUnusable, "{}: cannot read the file '{}': {}.", key, path, Reason());
    } else if (*actual != expected->second) {
      Fault(ErrorCode::DigestWrong,
            "{}: the file '{}' is not the right one: its SHA-256 is {}, but [sha256] says {}. Fetch it "
            "again, or correct the digest.",
            key, path, *actual, expected->second);
    } else {
      iFiles.push_back({key, path, true});
    }
  }

  void CheckWithoutDigest(const char* key, const std::string& path) {
    if (iRules.misreadDigests.count(key) != 0) {
      return;
    }
    if (iRules.required) {
      Fault(ErrorCode::DigestMissing,
            "{}: the file '{}' has no digest. Add {} under [sha256] in the configuration file.", key, path,
            key);
    } else {
      iFiles.push_back({key, path, false});
    }
  }

  void CheckSpeed(const char* key, const std::string& speed) {
    iSpeed_bps = SpeedOf(speed);
    if (!iSpeed_bps) {
      Fault(ErrorCode::PropertyInvalid,
            "{} \"{}\": must be a whole number of bit/s, digits only, from {} up, such as 115200.", key,
            speed, kMinSpeed_bps);
    }
  }

  void CheckPort(const char* key, const std::string& port) {
    struct stat status = {};
    if (port.empty()) {
      Fault(ErrorCode::PropertyInvalid,
            "{}: the port name is empty; name the serial device, such as /dev/ttyUSB0.", key);
    } else if (stat(port.c_str(), &status) != 0) {
      Fault(ErrorCode::PortMissing,
            "{}: cannot find the port \"{}\": {}.{} Is the adapter plugged in? 'peripheralctl ports' lists "
            "the ports.",
            key, port, Reason(), HintOnPortName(port));
    } else if (!S_ISCHR(status.st_mode)) {
      FaultOfNoSerialPort(key, port);
    } else {
      CheckDevice(key, port, status);
    }
  }

  // As the module will open it, but without waiting, and with its settings as they were afterwards.
  void CheckDevice(const char* key, const std::string& port, const struct stat& status) {
    const int descriptor = open(port.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
      FaultOfOpening(key, port, status);
      return;
    }
    if (!IsSerialPort(descriptor)) {
      FaultOfNoSerialPort(key, port);
    } else if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
      FaultOfPortInUse(key, port);
    } else if (!HasListeners(key, port)) {
      CheckSpeedOf(descriptor, key, port);
    }
    close(descriptor);
  }

  // A driver says only when it is tried which speeds it can do; another program's bytes would suffer.
  void CheckSpeedOf(int descriptor, const char* key, const std::string& port) {
    const auto offered = iSpeed_bps ? platform::SpeedOfferedInsteadOf(*iSpeed_bps, descriptor) : std::nullopt;
    if (offered) {
      Fault(ErrorCode::PortUnusable,
            "{}: the port '{}' cannot do {} bit/s, its driver offers {}; choose another speed or another "
            "adapter.",
            key, port, *iSpeed_bps, *offered);
    }
  }

  void FaultOfOpening(const char* key, const std::string& port, const struct stat& status) {
    const int error = errno;
    const std::string reason = Reason();
    if (error == EBUSY) {
      FaultOfPortInUse(key, port);
    } else if (error == EACCES || error == EPERM) {
      Fault(ErrorCode::PortForbidden, "{}: no permission to use the port '{}': {}. To get it, {}.", key, port,
            reason, HowToGainAccess(status));
    } else {
      Fault(ErrorCode::PortUnusable, "{}: cannot open the port '{}': {}. Is the adapter plugged in?", key,
            port, reason);
    }
  }

  void FaultOfNoSerialPort(const char* key, const std::string& port) {
    Fault(ErrorCode::PortNotSerial,
          "{}: '{}' is no serial port; name the serial device, such as /dev/ttyUSB0.", key, port);
  }

  void FaultOfPortInUse(const char* key, const std::string& port) {
    Fault(ErrorCode::PortBusy, "{}: the port '{}' is in use by {}; close that and try again.", key, port,
          Describe(HoldersOf(port), "another program"));
  }

  // Whoever opens a port without locking it is kept out by no lock.
  bool HasListeners(const char* key, const std::string& port) {
    const std::vector<PortHolder> holders = HoldersOf(port);
    if (!holders.empty()) {
      iWarnings.push_back(
          {ErrorCode::PortShared,
           fmt::format(
               "{}: {} has the port '{}' open, too, and may take the device's bytes away; close that.", key,
               Describe(holders, ""), port)});
    }
    return !holders.empty();
  }

  static const char* HintOnPortName(const std::string& port) {
    const bool odd = port.find_first_of(std::string(kBlanks) + kUpdateListSeparator) != std::string::npos;
    return odd ? " The name holds a blank or a semicolon: one device only, and nothing around it." : "";
  }

  void CheckAddress(const char* key, const std::string& address) {
    if (address.empty() || !std::all_of(address.begin(), address.end(), IsLetterOrDigit)) {
      Fault(ErrorCode::PropertyInvalid,
            "{} \"{}\": must be an address of letters and digits only, as the device reads it: no blanks, no "
            "semicolons.",
            key, address);
    }
  }

  template <typename... Arguments>
  void Fault(ErrorCode code, fmt::format_string<Arguments...> text, Arguments&&... arguments) {
    iFaults.push_back({code, fmt::format(text, std::forward<Arguments>(arguments)...)});
  }

  const PropertyMap& iProperties;
  const CheckRules& iRules;
  std::set<std::string> iRequired;
  bool iListFaulty = false;
  std::optional<TUint32> iSpeed_bps;  ///< known before the port is looked at
  Faults iFaults;
  std::vector<CheckedFile> iFiles;
  Faults iWarnings;
};

}  // namespace

std::string Describe(const std::vector<CheckedFile>& files) {
  std::string text;
  for (const CheckedFile& file : files) {
    text += fmt::format("{}: the file '{}' {}.\n", file.key, file.path,
                        file.isCompared ? "was compared with its digest" : "has no digest");
  }
  return text;
}

Findings CheckProperties(const PropertyMap& properties, const CheckRules& rules) {
  return Checker(properties, rules).Check();
}

}  // namespace host
