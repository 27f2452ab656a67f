// Goal: the simulator's texts for refusals and silences are understood wholly or not at all.
// Method: the input is the text. What was understood is written out again and must be understood as the same.
#include <string>

#include "Target.h"
#include "simulator/Options.h"

namespace fuzz {
namespace {

using simulator::Refusal;
using simulator::Silence;
using simulator::SilentStage;

bool AreSame(const Refusal& a, const Refusal& b) {
  return a.verb == b.verb && a.occurrence == b.occurrence && a.answer == b.answer;
}

bool AreSame(const Silence& a, const Silence& b) {
  return a.stage == b.stage && a.bytes == b.bytes;
}

std::string TextOf(const Refusal& refusal) {
  return refusal.verb + ":" + std::to_string(refusal.occurrence) + "=" + refusal.answer;
}

std::string TextOf(const Silence& silence) {
  switch (silence.stage) {
    case SilentStage::kStart:
      return "start";
    case SilentStage::kVersion:
      return "version";
    case SilentStage::kWriteRam:
      return "wr-ram";
    case SilentStage::kGo:
      return "gt";
    case SilentStage::kWriteFlash:
      return "wr-flash";
    case SilentStage::kCheck:
      return "ck";
    case SilentStage::kBytes:
      return std::to_string(silence.bytes);
    case SilentStage::kNone:
      break;
  }
  return "";
}

void CheckRefusal(const std::string& text) {
  const Refusal untouched = {"kept", 77, "kept"};
  Refusal refusal = untouched;
  if (!simulator::ParseRefusal(text, refusal)) {
    Promise(AreSame(refusal, untouched), "a text that is no refusal changed one");
    return;
  }
  Promise(refusal.verb == "wr" || refusal.verb == "gt" || refusal.verb == "ck", "a refusal of no command");
  Promise(refusal.occurrence >= 0, "a refusal of a negative occurrence");
  Promise(text.compare(0, 2, refusal.verb) == 0, "a refusal of another command");
  Refusal again;
  Promise(simulator::ParseRefusal(TextOf(refusal), again) && AreSame(refusal, again),
          "a refusal changes when it is written out and read again");
}

void CheckSilence(const std::string& text) {
  const Silence untouched = {SilentStage::kNone, 77};
  Silence silence = untouched;
  if (!simulator::ParseSilence(text, silence)) {
    Promise(AreSame(silence, untouched), "a text that is no silence changed one");
    return;
  }
  Promise((silence.stage == SilentStage::kBytes) == (silence.bytes > 0), "a silence at no moment");
  const bool isNumber = text.find_first_not_of("0123456789") == std::string::npos;
  Promise(isNumber == (silence.stage == SilentStage::kBytes), "a silence after what is no number of bytes");
  Silence again;
  Promise(simulator::ParseSilence(TextOf(silence), again) && AreSame(silence, again),
          "a silence changes when it is written out and read again");
}

}  // namespace

void Run(std::string_view input) {
  const std::string text(input);
  CheckRefusal(text);
  CheckSilence(text);
}

}  // namespace fuzz
