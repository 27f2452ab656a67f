#include "Ports.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include "Groups.h"
#include "Logging.h"

namespace host {

namespace {

namespace fs = std::filesystem;

constexpr const char* kModemManager = "ModemManager";
constexpr const char* kUdevRule = "78-peripheral-loader.rules";
// What the kernel says of a UART that is not there.
constexpr const char* kUnknownType = "0";

std::vector<fs::path> EntriesOf(const fs::path& folder) {
  std::error_code error;
  std::vector<fs::path> entries;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    entries.push_back(it->path());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

std::string FirstLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return logging::Printable(line);
}

bool HasLine(const fs::path& path, std::string_view wanted) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    if (line == wanted) {
      return true;
    }
  }
  return false;
}

std::string TargetOf(const fs::path& link) {
  std::error_code error;
  return fs::read_symlink(link, error).string();
}

int ProcessId(const fs::path& folder) {
  const std::string name = folder.filename().string();
  int pid = 0;
  const auto result = std::from_chars(name.data(), name.data() + name.size(), pid);
  return result.ec == std::errc() && result.ptr == name.data() + name.size() ? pid : 0;
}

// Whether a process holds the other side of that pseudo-terminal, whose number stands behind each of its
// descriptors.
bool PlaysDevice(const fs::path& process, const fs::path& device) {
  const std::string index = "tty-index:\t" + device.filename().string();
  const std::vector<fs::path> files = EntriesOf(process / "fdinfo");
  return device.parent_path() == "/dev/pts" &&
         std::any_of(files.begin(), files.end(),
                     [&index](const fs::path& file) { return HasLine(file, index); });
}

// Whether the udev rule in that file names an adapter by both of its numbers, or all of its vendor's.
bool IsNamed(const fs::path& rule, const std::string& vendor, const std::string& product) {
  std::ifstream file(rule);
  for (std::string line; std::getline(file, line);) {
    const std::size_t products = line.find("ATTRS{idProduct}");
    const std::string vendors = line.substr(0, products);
    if (vendors.rfind("ATTRS{idVendor}", 0) == 0 && vendors.find(vendor) != std::string::npos &&
        (products == std::string::npos || line.find(product, products) != std::string::npos)) {
      return true;
    }
  }
  return false;
}

// Looks at one machine's folders.
class Machine {
 public:
  explicit Machine(std::string root) : iRoot(std::move(root)), iModemManagerRuns(Runs(kModemManager)) {}

  std::vector<Port> Ports() const {
    std::vector<Port> ports;
    for (const fs::path& entry : EntriesOf(iRoot + "/sys/class/tty")) {
      if (IsPort(entry)) {
        ports.push_back(Look(entry));
      }
    }
    return ports;
  }

  std::vector<PortHolder> Holders(const std::string& device) const {
    std::vector<PortHolder> holders;
    for (const fs::path& process : EntriesOf(iRoot + "/proc")) {
      if (const int pid = ProcessId(process); pid != 0 && HasOpen(process, device)) {
        holders.push_back({pid, FirstLine(process / "comm")});
      }
    }
    return holders;
  }

 private:
  static bool IsPort(const fs::path& entry) {
    std::error_code error;
    return fs::exists(entry / "device", error) && FirstLine(entry / "type") != kUnknownType;
  }

  Port Look(const fs::path& entry) const {
    const std::string device = "/dev/" + entry.filename().string();
    const fs::path usb = UsbDevice(entry / "device");
    Port port;
    port.device = device;
    port.stableNames = StableNames(device);
    port.adapter = usb.empty() ? Driver(entry) : Adapter(usb);
    port.holders = Holders(device);
    port.mayBeOpened = faccessat(AT_FDCWD, (iRoot + device).c_str(), R_OK | W_OK, AT_EACCESS) == 0;
    struct stat status = {};
    if (stat((iRoot + device).c_str(), &status) == 0) {
      port.group = GroupName(status.st_gid);
      port.howToGainAccess = port.mayBeOpened ? "" : HowToGainAccess(status);
    }
    port.modemManager = Risk(entry, !usb.empty());
    port.howToKeepAway = port.modemManager == ModemManagerRisk::Likely ? HowToKeepAway(usb) : "";
    return port;
  }

  static std::string Driver(const fs::path& entry) {
    const std::string target = TargetOf(entry / "device/driver");
    return target.empty() ? "not known: it is on no USB bus, and the kernel names no driver"
                          : "driver " + fs::path(target).filename().string();
  }

  // The nearest folder above with a vendor; empty when the port is on no USB.
  fs::path UsbDevice(const fs::path& device) const {
    std::error_code error;
    fs::path folder = fs::canonical(device, error);
    while (!error && folder.has_relative_path()) {
      if (fs::exists(folder / "idVendor", error)) {
        return folder;
      }
      folder = folder.parent_path();
    }
    return {};
  }

  static std::string Adapter(const fs::path& usb) {
    std::vector<std::string> words;
    for (const char* name : {"manufacturer", "product"}) {
      if (const std::string word = FirstLine(usb / name); !word.empty()) {
        words.push_back(word);
      }
    }
    const std::string serial = FirstLine(usb / "serial");
    words.push_back(fmt::format("({}:{}{})", FirstLine(usb / "idVendor"), FirstLine(usb / "idProduct"),
                                serial.empty() ? "" : ", serial number " + serial));
    return fmt::format("{}", fmt::join(words, " "));
  }

  std::vector<std::string> StableNames(const std::string& device) const {
    std::vector<std::string> names;
    for (const char* folder : {"/dev/serial/by-id", "/dev/serial/by-path"}) {
      for (const fs::path& link : EntriesOf(iRoot + folder)) {
        const std::string name = std::string(folder) + "/" + link.filename().string();
        if ((fs::path(folder) / TargetOf(link)).lexically_normal() == device) {
          names.push_back(name);
        }
      }
    }
    return names;
  }

  static bool HasOpen(const fs::path& process, const std::string& device) {
    const std::vector<fs::path> files = EntriesOf(process / "fd");
    return std::any_of(files.begin(), files.end(),
                       [&device](const fs::path& file) { return TargetOf(file) == device; });
  }

  bool Runs(const std::string& program) const {
    const std::vector<fs::path> processes = EntriesOf(iRoot + "/proc");
    return std::any_of(processes.begin(), processes.end(), [&program](const fs::path& process) {
      return ProcessId(process) != 0 && FirstLine(process / "comm") == program;
    });
  }

  ModemManagerRisk Risk(const fs::path& entry, bool onUsb) const {
    if (!iModemManagerRuns) {
      return ModemManagerRisk::NotRunning;
    }
    if (IsExempt(FirstLine(entry / "dev"))) {
      return ModemManagerRisk::KeptAway;
    }
    return onUsb ? ModemManagerRisk::Likely : ModemManagerRisk::Unlikely;
  }

  std::string HowToKeepAway(const fs::path& usb) const {
    const std::optional<std::string> rule = InstalledRule();
    if (!rule) {
      return fmt::format("install the udev rule {}", kUdevRule);
    }
    const std::string vendor = FirstLine(usb / "idVendor");
    const std::string product = FirstLine(usb / "idProduct");
    if (IsNamed(*rule, vendor, product)) {
      return fmt::format("the udev rule {} names it; run \"udevadm control --reload\" and plug it in again",
                         kUdevRule);
    }
    return fmt::format(
        "the udev rule {0} does not name {1}:{2}; write SUBSYSTEM==\"tty\", ATTRS{{idVendor}}==\"{1}\", "
        "ATTRS{{idProduct}}==\"{2}\", ENV{{ID_MM_PORT_IGNORE}}=\"1\" into "
        "/etc/udev/rules.d/78-own-adapters.rules, run \"udevadm control --reload\" and plug it in again",
        kUdevRule, vendor, product);
  }

  std::optional<std::string> InstalledRule() const {
    for (const char* folder : {"/etc", "/run", "/usr/local/lib", "/usr/lib", "/lib"}) {
      const std::string path = fmt::format("{}{}/udev/rules.d/{}", iRoot, folder, kUdevRule);
      if (std::error_code error; fs::exists(path, error)) {
        return path;
      }
    }
    return std::nullopt;
  }

  bool IsExempt(const std::string& number) const {
    const std::string data = iRoot + "/run/udev/data/c" + number;
    return HasLine(data, "E:ID_MM_PORT_IGNORE=1") || HasLine(data, "E:ID_MM_DEVICE_IGNORE=1");
  }

  const std::string iRoot;
  const bool iModemManagerRuns;
};

const char* Describe(ModemManagerRisk risk) {
  switch (risk) {
    case ModemManagerRisk::NotRunning:
      return "does not run";
    case ModemManagerRisk::KeptAway:
      return "kept away by a udev rule";
    case ModemManagerRisk::Unlikely:
      return "runs, but hardly looks at such a port";
    case ModemManagerRisk::Likely:
      return "runs and may talk to the device: ";
  }
  return "";
}

}  // namespace

std::vector<Port> FindPorts(const std::string& root) {
  return Machine(root).Ports();
}

std::vector<PortHolder> HoldersOf(const std::string& port, const std::string& root) {
  std::error_code error;
  const fs::path device = root.empty() ? fs::canonical(port, error) : fs::path(port);
  std::vector<PortHolder> holders;
  if (!error) {
    holders = Machine(root).Holders(device.string());
  }
  const auto isNoOther = [&](const PortHolder& holder) {
    return holder.pid == getpid() || PlaysDevice(fmt::format("{}/proc/{}", root, holder.pid), device);
  };
  holders.erase(std::remove_if(holders.begin(), holders.end(), isNoOther), holders.end());
  return holders;
}

std::string Describe(const std::vector<PortHolder>& holders, const char* nobody) {
  std::vector<std::string> texts;
  texts.reserve(holders.size());
  for (const PortHolder& holder : holders) {
    texts.push_back(fmt::format("{} (process {})", holder.name, holder.pid));
  }
  return texts.empty() ? nobody : fmt::format("{}", fmt::join(texts, ", "));
}

std::string DescribePorts(const std::vector<Port>& ports) {
  if (ports.empty()) {
    return "There is no serial port. Is the adapter plugged in?\n";
  }
  std::string text;
  for (const Port& port : ports) {
    text += port.device + "\n";
    for (const std::string& name : port.stableNames) {
      text += fmt::format("  stable name    {}\n", name);
    }
    text += fmt::format("  adapter        {}\n", port.adapter);
    text += fmt::format("  held by        {}\n", Describe(port.holders, "nobody that you may see"));
    text += port.mayBeOpened ? "  access         yes\n"
                             : fmt::format("  access         no: {}\n", port.howToGainAccess);
    text += fmt::format("  modem manager  {}{}\n", Describe(port.modemManager), port.howToKeepAway);
  }
  return text;
}

}  // namespace host
