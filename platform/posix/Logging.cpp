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

// A message may quote what a device sent. Whatever that is, a line of the log stays one line.
void AppendPrintable(std::string& text, std::string_view message) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char character : message) {
    const auto byte = static_cast<TUint8>(character);
    if (byte >= 0x20 && byte != 0x7f) {
      text += character;
    } else {
      text.append("\\x").append({kDigits[byte >> 4], kDigits[byte & 15]});
    }
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

std::string Format(const TLine& line) {
  CMessage text;
  text << Name(line.level) << " " << Name(line.module) << " " << line.signature << " " << line.file << ":"
       << line.line << " (";
  std::string result(text.Text());
  AppendPrintable(result, line.message);
  return result + ")";
}

void SetLowestLevel(TLevel lowest) {
  lowestLevel.store(lowest, std::memory_order_relaxed);
}

bool IsOn(TLevel level) {
  return level == EAlways || level >= lowestLevel.load(std::memory_order_relaxed);
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
