#include "trace/TextView.h"

#include <fmt/format.h>

#include <algorithm>

#include "Logging.h"
#include "trace/Steps.h"

namespace host::trace {

namespace {

constexpr std::size_t kBytesInALine = 16;
constexpr int kTimeWidth = 12;

std::string DescriptionOf(const Dialogue& dialogue) {
  std::string text;
  for (const auto& [key, value] : dialogue.description) {
    text += fmt::format("{}: {}\n", logging::Printable(key), logging::Printable(value));
  }
  return text + "\n";
}

std::string BytesOf(const Frame& frame) {
  std::string text;
  for (std::size_t i = 0; i < frame.bytes.size(); i += kBytesInALine) {
    text += fmt::format("{:>{}}          {}\n", frame.offset + i, kTimeWidth,
                        Hexadecimal(std::string_view(frame.bytes).substr(i, kBytesInALine)));
  }
  return text;
}

std::string LineOf(const Dialogue& dialogue, const Step& step, const TextOptions& options) {
  std::string text = fmt::format("{:>{}}  {:<6}  {}\n", Seconds(step.begin_us), kTimeWidth,
                                 step.from ? trace::Name(*step.from) : "--", step.text);
  if (options.bytes && !step.frames.empty()) {
    text += BytesOf(dialogue.frames[step.frames.front()]);
  }
  return text;
}

std::string TransfersOf(const Dialogue& dialogue) {
  if (dialogue.transfers.empty()) {
    return "\nNo transfer was recorded.\n";
  }
  std::string text = "\nTransfers (begin and length in seconds):\n";
  for (const Transfer& transfer : dialogue.transfers) {
    text += fmt::format("{:>{}}  {:<6}  {}: {} bytes in {} {}, {} sent again, {} s, {}\n",
                        Seconds(transfer.begin_us), kTimeWidth, trace::Name(transfer.sender), transfer.Name(),
                        transfer.size, transfer.blocks, transfer.blocks == 1 ? "block" : "blocks",
                        transfer.resent, Seconds(transfer.end_us - transfer.begin_us), Name(transfer.result));
  }
  return text;
}

}  // namespace

std::string TextOf(const Dialogue& dialogue, const TextOptions& options) {
  std::string text = DescriptionOf(dialogue);
  for (const Step& step : StepsOf(dialogue, options.log ? Detail::FramesAndLog : Detail::Frames)) {
    text += LineOf(dialogue, step, options);
  }
  return text + TransfersOf(dialogue);
}

}  // namespace host::trace
