#include "LineScript.h"

#include <algorithm>

#include "Target.h"
#include "simulator/Xmodem.h"

namespace fuzz {
namespace {

constexpr std::uint64_t kMostSilence_ms = 400'000;

class Parser {
 public:
  explicit Parser(std::size_t most_steps) : iMostSteps(most_steps) {}

  LineScript Parse(std::string_view text) {
    while (!text.empty() && iScript.steps.size() < iMostSteps) {
      ParseOne(text);
    }
    return std::move(iScript);
  }

 private:
  using Data = std::vector<std::uint8_t>;

  void ParseOne(std::string_view& text) {
    if (text[0] == '*') {
      text.remove_prefix(1);
      Repeat(TakeNumber(text, kMostRepetitions));
    } else if (text[0] == 'W') {
      text.remove_prefix(1);
      iScript.first_failing_write = TakeNumber(text, kLastWrite);
    } else if (text[0] != ' ' && text[0] != '\n') {
      iLast = TakeElement(text);
      Play(iLast);
    } else {
      text.remove_prefix(1);
    }
  }

  static std::string TakeElement(std::string_view& text) {
    std::string_view rest = text.substr(1);
    std::string element(1, text[0]);
    if (text[0] == '[') {
      element += TakeUntil(rest, ']');
    } else if (text[0] == '{') {
      element += TakeUntil(rest, '}');
    } else if (text[0] == '\\') {
      element += rest.substr(0, 1);
      rest.remove_prefix(std::min<std::size_t>(1, rest.size()));
    }
    text = rest;
    return element;
  }

  void Repeat(int times) {
    for (int i = 1; i < times && !iLast.empty() && iScript.steps.size() < iMostSteps; ++i) {
      Play(iLast);
    }
  }

  void Play(const std::string& element) {
    switch (element[0]) {
      case 'A':
        return Byte(simulator::kAck);
      case 'N':
        return Byte(simulator::kNak);
      case 'X':
        return Byte(simulator::kCan);
      case 'E':
        iNumber = 0;
        return Byte(simulator::kEot);
      case '[':
        return NextBlock(ShortData(element.substr(1)));
      case '{':
        return NextBlock(LongData(element.substr(1)));
      case '=':
        return Frame();
      case '^':
        ++iNumber;
        return;
      case '%':
        iWrongTrailer = true;
        return;
      case '#':
        iTrailer =
            iTrailer == simulator::Trailer::kCrc ? simulator::Trailer::kChecksum : simulator::Trailer::kCrc;
        return;
      case ',':
        return Silence(300);
      case '.':
        return Silence(5001);
      case '~':
        return Silence(20001);
      case '!':
        iScript.steps.push_back({LineStep::kError, 0, 0});
        return;
      case '\\':
        return Byte(static_cast<std::uint8_t>(element.back()));
      default:
        return Byte(static_cast<std::uint8_t>(element[0]));
    }
  }

  void Byte(std::uint8_t byte) { iScript.steps.push_back({LineStep::kByte, byte, 0}); }

  void Silence(std::uint64_t ms) {
    if (iSilence_ms + ms <= kMostSilence_ms) {
      iSilence_ms += ms;
      iScript.steps.push_back({LineStep::kSilence, 0, ms});
    }
  }

  static Data ShortData(const std::string& text) {
    Data data(simulator::kShortBlock, 0);
    std::copy_n(text.begin(), std::min(text.size(), data.size()), data.begin());
    return data;
  }

  static Data LongData(const std::string& text) {
    Data data(simulator::kLongBlock, 0);
    for (std::size_t i = 0; i < data.size() && !text.empty(); ++i) {
      data[i] = static_cast<std::uint8_t>(text[i % text.size()]);
    }
    return data;
  }

  void NextBlock(const Data& data) {
    ++iNumber;
    iData = data;
    Frame();
  }

  void Frame() {
    Data frame = simulator::FrameBlock(iNumber, iData, iTrailer);
    frame.back() = static_cast<std::uint8_t>(frame.back() + (iWrongTrailer ? 1 : 0));
    iWrongTrailer = false;
    std::for_each(frame.begin(), frame.end(), [this](std::uint8_t byte) { Byte(byte); });
  }

  static constexpr int kMostRepetitions = 500;
  static constexpr int kLastWrite = 100'000;

  const std::size_t iMostSteps;
  LineScript iScript;
  std::string iLast;
  std::uint64_t iSilence_ms = 0;
  std::uint8_t iNumber = 0;
  Data iData = Data(simulator::kShortBlock, 0);
  simulator::Trailer iTrailer = simulator::Trailer::kCrc;
  bool iWrongTrailer = false;
};

}  // namespace

LineScript ParseLineScript(std::string_view text, std::size_t most_steps) {
  return Parser(most_steps).Parse(text);
}

std::string BytesOf(const LineScript& script) {
  std::string bytes;
  for (const LineStep& step : script.steps) {
    if (step.kind == LineStep::kByte) {
      bytes += static_cast<char>(step.byte);
    }
  }
  return bytes;
}

int Count(const LineScript& script, std::uint8_t byte) {
  return static_cast<int>(std::count_if(
      script.steps.begin(), script.steps.end(),
      [byte](const LineStep& step) { return step.kind == LineStep::kByte && step.byte == byte; }));
}

std::uint64_t Silence_ms(const LineScript& script) {
  std::uint64_t sum_ms = 0;
  for (const LineStep& step : script.steps) {
    sum_ms += step.silence_ms;
  }
  return sum_ms;
}

void Play(const LineScript& script, ScriptedPort& port) {
  for (const LineStep& step : script.steps) {
    if (step.kind == LineStep::kByte) {
      port.Late(0, step.byte);
    } else if (step.kind == LineStep::kSilence) {
      port.Silence(step.silence_ms);
    } else {
      port.ReadError();
    }
  }
  port.FailWritesFrom(script.first_failing_write);
}

}  // namespace fuzz
