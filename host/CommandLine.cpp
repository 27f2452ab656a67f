#include "CommandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <sstream>
#include <string_view>

#include "ExitCode.h"
#include "Help.h"
#include "OutputFile.h"
#include "Peripherals.h"
#include "Terminal.h"
#include "Version.h"
#include "report/RunReport.h"

namespace host {

namespace {

constexpr int kMaxTimeout_s = 24 * 60 * 60;
constexpr int kMaxRetries = 1000;
constexpr const char* kOff = "off";

const std::map<std::string, logging::TLevel>& Levels() {
  static const std::map<std::string, logging::TLevel> levels = {{"interface", logging::EInterface},
                                                                {"info", logging::EInfo},
                                                                {"warning", logging::EWarning},
                                                                {"error", logging::EError},
                                                                {"always", logging::EAlways}};
  return levels;
}

// What CLI11 writes to, before it becomes Options.
struct RawOptions {
  Options options;
  std::string logLevel;
  std::string library;
  std::string featureId;
  int timeout_s = 0;
  int retryPause_s = 3;
};

void AddJson(CLI::App& command, RawOptions& raw) {
  command.add_flag("--json", raw.options.json,
                   "Print one JSON object a line on standard output, and nothing else there");
}

void AddOptions(CLI::App& command, RawOptions& raw) {
  command.add_option("--config", raw.options.configFile, "Configuration file (TOML)")->type_name("FILE");
  command
      .add_option(
          "--set", raw.options.settings,
          "Set a property of the module, over what the file says; may be repeated. File names in it are "
          "relative to the working directory")
      ->type_name("KEY=VALUE")
      ->allow_extra_args(false)
      ->take_all();
  command.add_option("--log-level", raw.logLevel, "Lowest level to log (default with --log-file: info)")
      ->check(CLI::IsMember({"interface", "info", "warning", "error", "always", kOff}));
  command
      .add_option("--log-file", raw.options.logFile, "Append log lines to this file, not to standard error")
      ->type_name("FILE");
  command
      .add_option("--timeout", raw.timeout_s,
                  "Give up after this many seconds without a sign of life from the module (default: 30 while "
                  "preparing, 90 while updating, 10 while aborting)")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, kMaxTimeout_s));
  AddJson(command, raw);
  command.add_flag("--require-digest", raw.options.requireDigest,
                   "Refuse a file that has no digest under [sha256]");
  command.add_flag("--trust-config", raw.options.trustConfig,
                   "As root, follow a configuration file that others may change");
  command.add_option("--module", raw.library, "The module's shared library")->type_name("PATH");
  command.add_option("--feature-id", raw.featureId, "The feature id that the module gets")->type_name("ID");
}

void AddRecordingOptions(CLI::App& command, RawOptions& raw) {
  command
      .add_option(
          "--trace", raw.options.traceFile,
          "Record every byte of both directions, with its time, and the log in this file; 'peripheralctl "
          "trace' shows and replays it")
      ->type_name("FILE");
  command
      .add_option("--report", raw.options.reportFile,
                  "Write a report of the run to this file at its end: a page if its name ends in .html, JSON "
                  "if in .json")
      ->type_name("FILE")
      ->check([](const std::string& file) {
        report::Format format = {};
        return report::FormatOf(file, format) ? "" : "the name must end in .html or .json";
      });
}

void AddRetries(CLI::App& update, RawOptions& raw) {
  update
      .add_option("--retries", raw.options.retries.count,
                  "Ask for a failed update again, so many times at most (default: 0); not for one without a "
                  "result in time, since the module may still be at it")
      ->type_name("COUNT")
      ->check(CLI::Range(0, kMaxRetries));
  update.add_option("--retry-pause", raw.retryPause_s, "Seconds to wait before each of them")
      ->type_name("SECONDS")
      ->check(CLI::Range(0, kMaxTimeout_s))
      ->capture_default_str();
}

constexpr const char* kExamples =
    "Examples:\n"
    "  peripheralctl ports\n"
    "  peripheralctl prepare --config can.toml\n"
    "  peripheralctl update --config can.toml\n"
    "  peripheralctl trace show update.trace\n"
    "\n"
    "A configuration file:\n"
    "  [properties]\n"
    "  updatelist          = \"xmodem\"\n"
    "  xmodemsource-image  = \"firmware.bin\"    # relative to this file\n"
    "  xmodemsource-loader = \"loader.bin\"\n"
    "  xmodemspeed         = 115200\n"
    "  xmodemportname      = \"/dev/ttyUSB0\"\n"
    "  xmodemramaddress    = \"20000000\"        # text, as the device reads it\n"
    "  xmodemflashaddress  = \"08000000\"\n"
    "  [sha256]                                # optional: what sha256sum prints\n"
    "  xmodemsource-image  = \"...\"\n"
    "\n";

constexpr const char* kUpdateExamples =
    "Examples:\n"
    "  peripheralctl update --config can.toml --set xmodemportname=/dev/ttyUSB0\n"
    "  peripheralctl update --config can.toml --log-level info --log-file update.log\n"
    "  peripheralctl update --config can.toml --trace update.trace --report run.html\n"
    "  peripheralctl update --config can.toml --retries 2 --json\n"
    "\n";

constexpr const char* kPrepareExamples =
    "Examples:\n"
    "  peripheralctl prepare --config can.toml\n"
    "  peripheralctl prepare --config can.toml --set xmodemportname=/dev/ttyUSB0\n"
    "\n";

constexpr const char* kPortsExamples =
    "Examples:\n"
    "  peripheralctl ports\n"
    "  peripheralctl ports --json\n"
    "\n";

std::chrono::milliseconds OrDefault(int timeout_s, std::chrono::milliseconds standard) {
  return timeout_s > 0 ? std::chrono::seconds(timeout_s) : standard;
}

std::optional<logging::TLevel> ChosenLevel(const RawOptions& raw) {
  if (raw.logLevel.empty()) {
    return raw.options.logFile.empty() ? std::nullopt : std::make_optional(logging::EInfo);
  }
  const auto level = Levels().find(raw.logLevel);
  return level == Levels().end() ? std::nullopt : std::make_optional(level->second);
}

Options Finish(const RawOptions& raw, Goal goal) {
  Options options = raw.options;
  options.goal = goal;
  options.logLevel = ChosenLevel(raw);
  options.limits.prepare = OrDefault(raw.timeout_s, options.limits.prepare);
  options.limits.install = OrDefault(raw.timeout_s, options.limits.install);
  options.limits.abort = OrDefault(raw.timeout_s, options.limits.abort);
  options.retries.pause = std::chrono::seconds(raw.retryPause_s);
  if (!raw.library.empty()) {
    options.library = raw.library;
  }
  if (!raw.featureId.empty()) {
    options.featureId = raw.featureId;
  }
  return options;
}

// The first value of an option as it stands, for when the command line as a whole was not understood.
std::string ValueOf(std::string_view option, int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word.size() > option.size() && word.substr(0, option.size()) == option &&
        word[option.size()] == '=') {
      return std::string(word.substr(option.size() + 1));
    }
    if (word == option && i + 1 < argc && argv[i + 1][0] != '-') {
      return argv[i + 1];
    }
  }
  return "";
}

// A mistake elsewhere does not keep the report and the trace from telling of it.
CommandLine Mistake(const std::string& fault, int argc, const char* const* argv) {
  CommandLine line = {{}, false, fault};
  if (argc > 1 && std::string_view(argv[1]) == "update") {
    line.options.traceFile = ValueOf(kTraceFile.option, argc, argv);
    line.options.reportFile = ValueOf(kReportFile.option, argc, argv);
  }
  report::Format format = {};
  if (!report::FormatOf(line.options.reportFile, format)) {
    line.options.reportFile.clear();
  }
  return line;
}

std::string MissingCommand(int argc, const char* const* argv) {
  if (argc > 1 && std::string_view(argv[1]) == "trace") {
    return "say what to do with which trace: trace show FILE or trace replay FILE.";
  }
  const std::string instead = argc > 1 ? std::string(", not '") + argv[1] + "'" : "";
  return "say what to do: update, prepare, ports or trace" + instead + ".";
}

std::vector<std::string> OptionNames(const CLI::App& app) {
  const CLI::App* command = &app;
  while (!command->get_subcommands().empty()) {
    command = command->get_subcommands().front();
  }
  std::vector<std::string> names;
  for (const CLI::Option* option : command->get_options()) {
    names.insert(names.end(), option->get_lnames().begin(), option->get_lnames().end());
  }
  return names;
}

// In the order in which it was typed, with the option that the first word may have meant.
std::string NotUnderstood(const CLI::App& app) {
  const std::vector<std::string> words = app.remaining(true);
  const std::string text = fmt::format("not understood: {}.", fmt::join(words, " "));
  const std::string first = words.empty() ? "" : words.front();
  const std::size_t name = std::min(first.find_first_not_of('-'), first.size());
  const std::string near =
      name > 0 ? NearestName(first.substr(name, first.find('=') - name), OptionNames(app)) : "";
  return near.empty() ? text : fmt::format("{} Did you mean --{}?", text, near);
}

}  // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv, std::ostream& out) {
  RawOptions raw;
  CLI::App app("Updates the firmware of peripherals: loads the peripheral loader module and drives it.",
               "peripheralctl");
  app.footer(kExamples + DescribeExitCodes(kAllCommands));
  app.set_version_flag("--version", std::string("peripheralctl ") + kVersion);
  app.require_subcommand(1);
  app.fallthrough(false);
  CLI::App* update = app.add_subcommand("update", "Prepare the peripherals, then send them their firmware");
  AddRetries(*update, raw);
  CLI::App* prepare = app.add_subcommand("prepare", "Check settings, files and port; send nothing");
  CLI::App* ports =
      app.add_subcommand("ports", "List the serial ports, who holds them and who may disturb them");
  AddJson(*ports, raw);
  for (CLI::App* command : {update, prepare}) {
    AddOptions(*command, raw);
  }
  update->footer(kUpdateExamples + DescribeExitCodes(kUpdate));
  prepare->footer(kPrepareExamples + DescribeExitCodes(kPrepare));
  ports->footer(kPortsExamples + DescribeExitCodes(kPorts));
  AddRecordingOptions(*update, raw);
  trace::AddTraceCommand(app, raw.options.trace);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    std::ostringstream answer;
    app.exit(success, answer, answer);
    out << WrapHelp(answer.str(), HelpColumns());
    return {raw.options, true, ""};
  } catch (const CLI::RequiredError&) {
    return Mistake(MissingCommand(argc, argv), argc, argv);
  } catch (const CLI::ExtrasError&) {
    return Mistake(NotUnderstood(app), argc, argv);
  } catch (const CLI::ParseError& error) {
    return Mistake(error.what(), argc, argv);
  }
  if (raw.options.trace.action != trace::TraceOptions::Action::None) {
    return {raw.options, false, ""};
  }
  raw.options.listPorts = ports->parsed();
  if (!raw.options.listPorts && raw.options.configFile.empty() && raw.options.settings.empty()) {
    return {raw.options, false, "name a configuration file with --config, or set the properties with --set."};
  }
  return {Finish(raw, prepare->parsed() ? Goal::Prepare : Goal::Update), false, ""};
}

}  // namespace host
