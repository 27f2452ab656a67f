// Goal: whatever a trace holds, it is read up to its break; no byte of either side gets lost between the file
// and what is shown; views and reports are well formed. Method: the input is read as a trace as it stands,
// and as a list of records: a byte for the kind, one for the time since the record before, one for the size,
// the payload. A payload of size 255 is a whole block.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "Target.h"
#include "report/RunReport.h"
#include "trace/Chart.h"
#include "trace/Steps.h"
#include "trace/TextView.h"

namespace fuzz {
namespace {

using namespace host::trace;

constexpr std::string_view kKinds = "SO><LCME><><";
constexpr std::uint64_t kTimeUnit_us = 50'000;
constexpr std::size_t kBlock = 255;

unsigned TakeByte(std::string_view& input) {
  const unsigned byte = input.empty() ? 0 : static_cast<unsigned char>(input[0]);
  input.remove_prefix(std::min<std::size_t>(1, input.size()));
  return byte;
}

std::string TakePayload(std::string_view& input) {
  const std::size_t size = TakeByte(input);
  const std::string payload(input.substr(0, size));
  input.remove_prefix(payload.size());
  return size == kBlock
             ? "\x01\x01\xfe" + payload + std::string(130 - std::min<std::size_t>(130, payload.size()), 0)
             : payload;
}

std::vector<Record> RecordsFrom(std::string_view input) {
  std::vector<Record> records;
  std::uint64_t time_us = 0;
  while (!input.empty()) {
    const auto kind = static_cast<Kind>(kKinds[TakeByte(input) % kKinds.size()]);
    time_us += kTimeUnit_us * TakeByte(input);
    records.push_back({kind, time_us, TakePayload(input)});
  }
  return records;
}

std::string BytesOf(const Trace& trace, Kind kind) {
  std::string bytes;
  for (const Record& record : trace.records) {
    bytes += record.kind == kind ? record.payload : "";
  }
  return bytes;
}

// The frames of a side in the order of their bytes; a row of bytes may have been continued after another
// frame.
std::string BytesOf(const Dialogue& dialogue, Side side) {
  std::vector<const Frame*> frames;
  for (const Frame& frame : dialogue.frames) {
    if (frame.side == side && !frame.bytes.empty()) {
      frames.push_back(&frame);
    }
  }
  std::stable_sort(frames.begin(), frames.end(),
                   [](const Frame* one, const Frame* other) { return one->offset < other->offset; });
  std::string bytes;
  for (const Frame* frame : frames) {
    Promise(frame->offset == bytes.size(), "a frame does not stand where it says");
    bytes += frame->bytes;
  }
  return bytes;
}

void CheckViews(const Trace& trace, const Dialogue& dialogue) {
  for (const bool log : {false, true}) {
    const std::string text = TextOf(dialogue, {true, log});
    Promise(std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' || c < 0); }),
            "a control character in the text");
  }
  const std::string chart = SequenceChart(dialogue);
  Promise(std::all_of(chart.begin(), chart.end(), [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }),
          "what no document can hold in the chart");
  Promise(nlohmann::json::accept(host::report::JsonReport(trace, {})), "a report that is no JSON");
  Promise(host::report::HtmlReport(trace, {}).find("<script") == std::string::npos, "somebody else's markup");
}

void Check(const Trace& trace) {
  const Dialogue dialogue = Understand(trace);
  Promise(BytesOf(dialogue, Side::Host) == BytesOf(trace, Kind::Sent), "bytes of the host are lost");
  Promise(BytesOf(dialogue, Side::Device) == BytesOf(trace, Kind::Received), "bytes of the device are lost");
  CheckViews(trace, dialogue);
}

}  // namespace

void Run(std::string_view input) {
  Check(Decode(input));
  const std::vector<Record> records = RecordsFrom(input);
  std::string content = FileHeader();
  for (const Record& record : records) {
    content += Encode(record);
  }
  const Trace trace = Decode(content);
  Promise(trace.records.size() == records.size(), "records are lost");
  Promise(trace.soundness == Soundness::Whole || trace.soundness == Soundness::Open,
          "a sound trace is not read");
  Check(trace);
}

}  // namespace fuzz
