#include "simulator/CommandLine.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>

#include "simulator/DumpFiles.h"
#include "simulator/Output.h"
#include "simulator/Scenario.h"

namespace simulator {

namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  bootloader-simulator --device can --link /tmp/port\n"
    "  bootloader-simulator --device can,sanyo --link port --once --dump-flash flash\n"
    "  bootloader-simulator --silent-after wr-flash --link port\n"
    "  bootloader-simulator --scenario bench.toml\n"
    "\n"
    "Every fault that ends an update happens once; the next one shows the recovery.\n"
    "\n"
    "Exit codes:\n"
    "  0  ended by a signal, or every device of the list was updated\n"
    "  1  with --once: an update failed, or the program was ended before the last one\n"
    "  2  bad usage, or a scenario that cannot be played\n"
    "  3  no pseudo-terminal, link or dump could be made, or not all could be said";

constexpr std::size_t kNarrow_columns = 60;
constexpr std::size_t kDefault_columns = 80;
constexpr std::size_t kTextColumn = 30;
constexpr std::size_t kNarrowTextColumn = 6;

/// What the variable COLUMNS says, else the terminal's width, else what most have.
std::size_t Columns() {
  const char* wanted = std::getenv("COLUMNS");  // NOLINT(concurrency-mt-unsafe): nobody sets variables
  const unsigned long columns = wanted == nullptr ? 0 : std::strtoul(wanted, nullptr, 10);
  winsize size = {};
  if (columns > 0) {
    return columns;
  }
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kDefault_columns;
}

/// Breaks the options' texts into lines that fit.
class HelpFormatter : public CLI::Formatter {
 public:
  explicit HelpFormatter(std::size_t columns) {
    column_width(columns < kNarrow_columns ? kNarrowTextColumn : kTextColumn);
    iRoom = std::max(columns, 2 * get_column_width()) - get_column_width();
  }

  std::string make_option_desc(const CLI::Option* option) const override {
    std::string text = option->get_description();
    for (std::size_t begin = 0; text.size() - begin > iRoom;) {
      const std::size_t blank = text.rfind(' ', begin + iRoom);
      if (blank == std::string::npos || blank < begin) {
        break;
      }
      text[blank] = '\n';
      begin = blank + 1;
    }
    return text;
  }

 private:
  std::size_t iRoom;
};

/// Whether all that was to be said on standard output was. Complains where it was not.
bool IsSaid() {
  if (std::cout.flush()) {
    return true;
  }
  TellLoss();
  return false;
}

/// What the options say, before it becomes a line to be played.
struct RawOptions {
  std::string scenario;
  std::string devices = "can";
  Options device;
  Settings settings;
};

void AddProgramOptions(CLI::App& app, RawOptions& raw) {
  Settings& settings = raw.settings;
  app.add_option("--scenario", raw.scenario,
                 "Play the lines and devices that this file (TOML) describes; no other option goes with it")
      ->type_name("FILE");
  app.add_option("--device", raw.devices,
                 "Devices on the line, one after the other: can, sanyo or a list such as can,sanyo")
      ->capture_default_str();
  app.add_option("--baud", settings.line.baud, "Speed in bits per second, 10 bits a byte; 0: no pacing")
      ->check(CLI::Range(0, kMaxBaud))
      ->capture_default_str();
  app.add_option("--link", settings.link, "Path of a symbolic link to the port, removed at exit");
  app.add_option("--dump-ram", settings.dump_ram,
                 "File for what RAM holds, after each update and at exit; .1, .2 … is appended in a list");
  app.add_option("--dump-flash", settings.dump_flash, "The same for flash, in another file");
  app.add_flag("--once", settings.once, "Exit when every device of the list was updated, or one failed");
}

void AddDeviceOptions(CLI::App& app, Options& device) {
  const std::string group = "Device";
  app.add_option("--version-text", device.version_text, "Text that the CAN device announces")
      ->capture_default_str()
      ->group(group);
  app.add_option("--ram-base", device.ram_base, "First RAM address; 0x… is hexadecimal")
      ->capture_default_str()
      ->group(group);
  app.add_option("--ram-size", device.ram_size, "RAM in bytes")->capture_default_str()->group(group);
  app.add_option("--flash-base", device.flash_base, "First flash address")
      ->capture_default_str()
      ->group(group);
  app.add_option("--flash-size", device.flash_size, "Flash in bytes")->capture_default_str()->group(group);
  app.add_option("--patience", device.patience_s,
                 "Seconds that it waits for its host in the middle of an update before it begins anew")
      ->check(CLI::Range(1, kMaxPatience_s))
      ->capture_default_str()
      ->group(group);
}

void AddDialogueFaults(CLI::App& app, Faults& faults) {
  const std::string group = "Faults of the dialogue";
  app.add_option_function<std::vector<std::string>>(
         "--refuse",
         [&faults](const std::vector<std::string>& texts) {
           for (const std::string& text : texts) {
             faults.refusals.emplace_back();
             if (!ParseRefusal(text, faults.refusals.back())) {
               throw CLI::ValidationError("--refuse",
                                          "\"" + text + "\" is not of the form wr|gt|ck[:N][=ANSWER]");
             }
           }
         },
         "wr|gt|ck[:N][=ANSWER]: answer the N-th such command (1; 0: each) with ANSWER (001); may be "
         "repeated")
      ->group(group);
  app.add_option_function<std::string>(
         "--silent-after",
         [&faults](const std::string& text) {
           if (!ParseSilence(text, faults.silent_after)) {
             throw CLI::ValidationError(
                 "--silent-after",
                 "\"" + text + "\" is none of start, version, wr-ram, gt, wr-flash, ck, a byte count");
           }
         },
         "Be switched off from the start; die once the version was sent, or once what wr-ram, gt, wr-flash, "
         "ck need was received, before the "
         "answer; or after a number of bytes received")
      ->group(group);
  app.add_option("--slow", faults.slow_ms, "Think so many milliseconds before each answer")
      ->check(CLI::Range(0, kMaxSlow_ms))
      ->group(group);
  app.add_flag("--corrupt-flash", faults.corrupt_flash, "One bit of the first image goes wrong in flash")
      ->group(group);
}

void AddTransferFaults(CLI::App& app, Options& device) {
  Faults& faults = device.faults;
  const std::string group = "Faults of the transfers";
  app.add_flag("--checksum", faults.checksum, "Ask for 8-bit checksums instead of CRCs")->group(group);
  app.add_option("--nak-every", faults.nak_every, "Reject every N-th sound block of a transfer")
      ->check(CLI::NonNegativeNumber)
      ->group(group);
  app.add_flag("--nak-eot", faults.nak_first_eot, "Reject the first EOT of each transfer")->group(group);
  app.add_option("--damage-every", faults.damage_every, "Send every N-th block of a transfer damaged")
      ->check(CLI::NonNegativeNumber)
      ->group(group);
  app.add_option("--cancel-after", faults.cancel_after_bytes, "Cancel after so many bytes received; 0: never")
      ->group(group);
  app.add_option(
         "--faulty", device.faulty_device,
         "Position in the list, from 1, of the only device with faults of both kinds; 0: all have them")
      ->check(CLI::NonNegativeNumber)
      ->group(group);
}

void AddLineFaults(CLI::App& app, LineOptions& line) {
  const std::string group = "Faults of the line";
  app.add_option("--noise", line.noise_rate,
                 "Share of bytes that are flipped, lost or doubled by a stray one")
      ->check(CLI::Range(0.0, 1.0))
      ->group(group);
  app.add_option("--seed", line.noise_seed, "Makes the noise repeatable")
      ->capture_default_str()
      ->group(group);
  app.add_option("--unplug-after", line.unplug_after_bytes,
                 "Close the port, and exit, after so many bytes from the host; 0: never")
      ->group(group);
}

std::vector<Settings> PlayScenario(const std::string& path, const CLI::App& app) {
  const auto given = app.get_options([](const CLI::Option* each) { return each->count() > 0; });
  if (given.size() > 1) {
    throw CLI::ValidationError("--scenario", "no other option goes with it; write it into the file");
  }
  std::vector<std::string> faults;
  std::vector<Settings> lines = ReadScenario(path, faults);
  if (!faults.empty()) {
    throw CLI::ValidationError("--scenario", fmt::format("{}", fmt::join(faults, "\n")));
  }
  return lines;
}

void CheckDumps(const Settings& settings) {
  std::set<std::string> files;
  for (const std::string& path : {settings.dump_ram, settings.dump_flash}) {
    if (!AddDumpFiles(path, settings.devices.size(), files)) {
      throw CLI::ValidationError("--dump-flash", "--dump-ram names this file already. Each needs its own.");
    }
  }
}

std::vector<Settings> Choose(RawOptions& raw, const CLI::App& app) {
  if (app.count("--scenario") > 0) {
    return PlayScenario(raw.scenario, app);
  }
  raw.settings.devices = PlanDevices(raw.devices, raw.device);
  if (MakeDevices(raw.settings.devices, raw.settings.once) == nullptr) {
    throw CLI::ValidationError("--device", "\"" + raw.devices + "\" is not a list of can and sanyo");
  }
  CheckDumps(raw.settings);
  return {raw.settings};
}

}  // namespace

std::optional<int> ParseCommandLine(int argc, char** argv, std::vector<Settings>& lines) {
  CLI::App app("Plays bootloaders of a CAN controller and a Sanyo device on a pseudo-terminal.");
  RawOptions raw;
  app.footer(kFooter);
  app.formatter(std::make_shared<HelpFormatter>(Columns()));
  app.set_version_flag("--version", "bootloader-simulator " SIMULATOR_VERSION);
  AddProgramOptions(app, raw);
  AddDeviceOptions(app, raw.device);
  AddDialogueFaults(app, raw.device.faults);
  AddTransferFaults(app, raw.device);
  AddLineFaults(app, raw.settings.line);
  try {
    app.parse(argc, argv);
    lines = Choose(raw, app);
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) != 0) {
      return kExitBadUsage;
    }
    return IsSaid() ? kExitOk : kExitSystem;
  }
  return std::nullopt;
}

}  // namespace simulator
