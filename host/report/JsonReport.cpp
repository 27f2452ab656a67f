#include <nlohmann/json.hpp>

#include "Logging.h"
#include "report/Figures.h"
#include "report/RunReport.h"
#include "trace/Steps.h"

namespace host::report {

namespace {

using nlohmann::ordered_json;
using trace::Dialogue;
using trace::Frame;
using trace::Transfer;

constexpr int kVersion = 1;

double Seconds(std::uint64_t time_us) {
  return static_cast<double>(time_us) / 1e6;
}

const char* Name(Transfer::Purpose purpose) {
  switch (purpose) {
    case Transfer::Purpose::Version:
      return "version";
    case Transfer::Purpose::Command:
      return "command";
    case Transfer::Purpose::File:
      return "file";
    case Transfer::Purpose::Answer:
      return "answer";
  }
  return "";
}

ordered_json Transfers(const Dialogue& dialogue) {
  ordered_json transfers = ordered_json::array();
  for (const Transfer& transfer : dialogue.transfers) {
    transfers.push_back({{"sender", trace::Name(transfer.sender)},
                         {"purpose", Name(transfer.purpose)},
                         {"text", logging::Printable(transfer.text)},
                         {"begin_s", Seconds(transfer.begin_us)},
                         {"end_s", Seconds(transfer.end_us)},
                         {"bytes", transfer.size},
                         {"blocks", transfer.blocks},
                         {"resent", transfer.resent},
                         {"result", Name(transfer.result)}});
  }
  return transfers;
}

ordered_json Retransmissions(const Figures& figures) {
  ordered_json retransmissions = ordered_json::array();
  for (const Retransmission& again : figures.retransmissions) {
    retransmissions.push_back({{"time_s", Seconds(again.time_us)},
                               {"sender", trace::Name(again.sender)},
                               {"block", again.block},
                               {"transfer", again.transfer},
                               {"after", again.after}});
  }
  return retransmissions;
}

ordered_json Pauses(const Dialogue& dialogue) {
  ordered_json pauses = ordered_json::array();
  for (const trace::Pause& pause : dialogue.pauses) {
    pauses.push_back(
        {{"end_s", Seconds(dialogue.frames[pause.before].begin_us)}, {"length_s", Seconds(pause.length_us)}});
  }
  return pauses;
}

ordered_json Steps(const Dialogue& dialogue) {
  ordered_json steps = ordered_json::array();
  for (const trace::Step& step : StepsOf(dialogue, trace::Detail::Condensed)) {
    steps.push_back({{"time_s", Seconds(step.begin_us)},
                     {"from", step.from ? ordered_json(trace::Name(*step.from)) : ordered_json()},
                     {"text", step.text}});
  }
  return steps;
}

ordered_json Log(const Dialogue& dialogue) {
  ordered_json log = ordered_json::array();
  for (const Frame& frame : dialogue.frames) {
    if (frame.kind == Frame::Kind::Log) {
      const trace::LogLine line = LogLineOf(frame);
      log.push_back({{"time_s", Seconds(frame.begin_us)},
                     {"level", line.level},
                     {"module", line.module},
                     {"message", line.message}});
    }
  }
  return log;
}

ordered_json Numbers(const Figures& figures) {
  return {{"duration_s", Seconds(figures.duration_us)},
          {"bytesSent", figures.sent},
          {"bytesReceived", figures.received},
          {"fileBytesAcknowledged", figures.acknowledged},
          {"blocks", figures.blocks},
          {"paused_s", Seconds(figures.paused_us)}};
}

ordered_json Errors(const Faults& faults) {
  ordered_json errors = ordered_json::array();
  for (const Fault& fault : faults) {
    const ErrorDescription& description = Describe(fault.code);
    errors.push_back({{"code", description.name},
                      {"message", fault.text},
                      {"cause", description.cause},
                      {"advice", description.advice}});
  }
  return errors;
}

}  // namespace

std::string JsonReport(const trace::Trace& trace, const Faults& errors) {
  const Dialogue dialogue = Understand(trace);
  const Figures figures = Count(dialogue);
  const ordered_json report = {
      {"report", "peripheralctl"},
      {"version", kVersion},
      {"run", dialogue.description},
      {"exitCode", dialogue.exitCode ? ordered_json(*dialogue.exitCode) : ordered_json()},
      {"outcome", dialogue.outcome},
      {"errors", Errors(errors)},
      {"figures", Numbers(figures)},
      {"rate", {{"step_s", Seconds(figures.rate.step_us)}, {"bytes", figures.rate.bytes}}},
      {"transfers", Transfers(dialogue)},
      {"retransmissions", Retransmissions(figures)},
      {"pauses", Pauses(dialogue)},
      {"dialogue", Steps(dialogue)},
      {"log", Log(dialogue)}};
  // What a device or a path holds need not be text.
  return report.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace host::report
