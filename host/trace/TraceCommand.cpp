#include "trace/TraceCommand.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "trace/Chart.h"
#include "trace/TextView.h"

namespace host::trace {

namespace {

void AddShow(CLI::App& command, TraceOptions& options) {
  CLI::App* show = command.add_subcommand("show", "Show a trace, decoded, on standard output");
  show->add_option("FILE", options.file, "The trace")->required();
  show->add_option("--format", options.format, "As text, or as an SVG sequence chart")
      ->check(CLI::IsMember({"text", "svg"}))
      ->capture_default_str();
  show->add_flag("--bytes", options.bytes,
                 "Below each line of text the bytes, with their place in the stream");
  show->add_flag("--log", options.log, "The log among the lines of text");
  show->footer(
      "Examples:\n"
      "  peripheralctl trace show update.trace --bytes --log\n"
      "  peripheralctl trace show update.trace --format svg > chart.svg\n\n" +
      DescribeExitCodes(kTraceShow));
  show->callback([&options] { options.action = TraceOptions::Action::Show; });
}

void AddReplay(CLI::App& command, TraceOptions& options) {
  CLI::App* replay =
      command.add_subcommand("replay",
                             "Run the module against the device's side of a trace, and tell where the run "
                             "departs from the recorded one. Neither a device nor the files are needed");
  replay->add_option("FILE", options.file, "The trace")->required();
  replay->add_flag("--fast", options.fast,
                   "Leave out what the device paused for less than 4 s, which no host notices");
  replay->add_option("--module", options.library, "The module's shared library")->type_name("PATH");
  replay->footer(
      "Examples:\n"
      "  peripheralctl trace replay update.trace --fast\n\n" +
      DescribeExitCodes(kTraceReplay));
  replay->callback([&options] { options.action = TraceOptions::Action::Replay; });
}

}  // namespace

void AddTraceCommand(CLI::App& app, TraceOptions& options) {
  CLI::App* command = app.add_subcommand("trace", "Show or replay a trace, as 'update --trace' records it");
  command->require_subcommand(1);
  command->footer(
      "Examples:\n"
      "  peripheralctl trace show update.trace\n"
      "  peripheralctl trace replay update.trace\n\n" +
      DescribeExitCodes(kTraces));
  AddShow(*command, options);
  AddReplay(*command, options);
}

ExitCode ShowTrace(const TraceOptions& options) {
  const Trace trace = ReadTrace(options.file);
  if (!trace.records.empty()) {
    const Dialogue dialogue = Understand(trace);
    std::cout << (options.format == "svg" ? SequenceChart(dialogue)
                                          : TextOf(dialogue, {options.bytes, options.log}))
              << std::flush;
  }
  if (!trace.fault.empty()) {
    std::cerr << "peripheralctl: " << trace.fault << "\n";
  }
  const bool sound = trace.soundness == Soundness::Whole || trace.soundness == Soundness::Open;
  return sound ? ExitCode::Success : ExitCode::TraceBroken;
}

}  // namespace host::trace
