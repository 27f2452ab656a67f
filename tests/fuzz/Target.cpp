#include "Target.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "Logging.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool IsControl(char character) {
  return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
}

// Every line of every level is composed, so that a message that reads too far is found, and none is written.
class PrintableLines : public logging::ISink {
 public:
  void Write(const logging::TLine& line) override {
    const std::string text = logging::Format(line);
    fuzz::Promise(std::none_of(text.begin(), text.end(), IsControl), "a log line holds a control character");
  }
};

}  // namespace

namespace fuzz {

void Promise(bool kept, std::string_view what) {
  if (!kept) {
    std::fprintf(stderr, "Broken promise: %.*s\n", static_cast<int>(what.size()), what.data());
    std::abort();
  }
}

int TakeNumber(std::string_view& text, int limit) {
  int number = 0;
  while (!text.empty() && text[0] >= '0' && text[0] <= '9') {
    number = std::min(number * 10 + (text[0] - '0'), limit);
    text.remove_prefix(1);
  }
  return number;
}

std::string_view TakeUntil(std::string_view& text, char separator) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return taken;
}

std::string Pattern(int size) {
  std::string pattern(static_cast<std::size_t>(size), '\0');
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = static_cast<char>(i + i / 128);
  }
  return pattern;
}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  static PrintableLines lines;
  logging::SetSink(&lines);
  logging::SetLowestLevel(logging::EInterface);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Run({reinterpret_cast<const char*>(data), size});
  return 0;
}
