#include "Logging.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <utility>

namespace logging {
namespace {

// Asked by every log statement of every thread, up to the last moment of the process; it needs no
// destruction.
std::atomic<TLevel> lowestLevel{EWarning};

std::string TimeOfDay() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char text[sizeof("hh:mm:ss")];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  char milliseconds[sizeof(".mmm")];
  std::snprintf(milliseconds, sizeof milliseconds, ".%03u",
                static_cast<unsigned>(now.tv_nsec / 1000000) % 1000u);
  return std::string(text) + milliseconds;
}

class CStandardErrorSink : public ISink {
 public:
  void Write(const TLine& line) override {
    const std::string text = TimeOfDay() + " " + Format(line) + "\n";
    // In one piece, so that other writers of standard error do not get between.
    std::fwrite(text.data(), 1, text.size(), stderr);
  }
};

struct TOutput {
  std::mutex mutex;
  CStandardErrorSink standardError;
  ISink* sink = nullptr;
};

TOutput& Output() {
  // Never destroyed: threads may log while the process ends.
  static auto* const output = new TOutput;
  return *output;
}

// How many bytes at the beginning of `text` are one control character; 0 when they are none. A byte of 80 to
// 9f is one by itself, or behind c2 in UTF-8; behind any other byte above 7f it is a part of a letter.
std::size_t ControlLength(std::string_view text, TUint8 before) {
  const auto isC1 = [](TUint8 byte) { return byte >= 0x80 && byte <= 0x9f; };
  const auto byte = static_cast<TUint8>(text[0]);
  if (byte < 0x20 || byte == 0x7f || (isC1(byte) && before < 0x80)) {
    return 1;
  }
  return byte == 0xc2 && text.size() > 1 && isC1(static_cast<TUint8>(text[1])) ? 2 : 0;
}

void AppendHexadecimal(std::string& text, std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char character : bytes) {
    const auto byte = static_cast<TUint8>(character);
    text.append("\\x").append({kDigits[byte >> 4], kDigits[byte & 15]});
  }
}

}  // namespace

const char* Name(TLevel level) {
  switch (level) {
    case EInterface:
      return "Interface";
    case EInfo:
      return "Info";
    case EWarning:
      return "Warning";
    case EError:
      return "Error";
    case EAlways:
      return "Always";
  }
  return "?";
}

const char* Name(TModule module) {
  switch (module) {
    case PeripheralLoader:
      return "PeripheralLoader";
    case SWLInfra:
      return "SWLInfra";
    case Platform:
      return "Platform";
    case Host:
      return "Host";
  }
  return "?";
}

std::string Printable(std::string_view text) {
  std::string printable;
  TUint8 before = 0;
  while (!text.empty()) {
    const std::size_t control = ControlLength(text, before);
    const std::size_t length = control > 0 ? control : 1;
    if (control > 0) {
      AppendHexadecimal(printable, text.substr(0, length));
    } else {
      printable += text[0];
    }
    before = control > 0 ? TUint8{0} : static_cast<TUint8>(text[0]);
    text.remove_prefix(length);
  }
  return printable;
}

std::string Format(const TLine& line) {
  CMessage text;
  text << Name(line.level) << " " << Name(line.module) << " " << line.signature << " " << line.file << ":"
       << line.line << " (" << Printable(line.message) << ")";
  return std::string(text.Text());
}

void SetLowestLevel(TLevel lowest) {
  lowestLevel.store(lowest, std::memory_order_relaxed);
}

TLevel LowestLevel() {
  return lowestLevel.load(std::memory_order_relaxed);
}

bool IsOn(TLevel level) {
  return level == EAlways || level >= LowestLevel();
}

ISink* SetSink(ISink* sink) {
  TOutput& output = Output();
  const std::lock_guard<std::mutex> lock(output.mutex);
  return std::exchange(output.sink, sink);
}

void Write(const TLine& line) {
  TOutput& output = Output();
  const std::lock_guard<std::mutex> lock(output.mutex);
  ISink& sink = output.sink != nullptr ? *output.sink : output.standardError;
  sink.Write(line);
}

}  // namespace logging
