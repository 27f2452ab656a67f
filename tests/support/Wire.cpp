#include "Wire.h"

#include <cstddef>
#include <cstdio>
#include <sstream>

namespace wire {
namespace {

constexpr std::size_t kShortestRun = 4;
constexpr std::uint64_t kReplyTimeout_ms = 5000;
constexpr std::uint64_t kStartUpTimeout_ms = 20000;

struct Word {
  std::string word;
  int times;
};

std::vector<Word> Words(const std::string& text) {
  std::vector<Word> words;
  std::istringstream input(text);
  for (std::string word; input >> word;) {
    const auto star = word.find('*');
    const int times = star == std::string::npos ? 1 : std::stoi(word.substr(star + 1));
    words.push_back({word.substr(0, star), times});
  }
  return words;
}

std::uint8_t Byte(const std::string& word) {
  return static_cast<std::uint8_t>(std::stoul(word, nullptr, 16));
}

std::string Hexadecimal(std::uint8_t byte) {
  char text[sizeof "FF"];
  std::snprintf(text, sizeof text, "%02X", byte);
  return text;
}

void PlayOne(ScriptedPort& port, const std::string& word) {
  if (word == ".") {
    port.Silence(kReplyTimeout_ms + 1);
  } else if (word == "~") {
    port.Silence(kStartUpTimeout_ms + 1);
  } else if (word == "!") {
    port.ReadError();
  } else {
    port.Late(0, Byte(word));
  }
}

}  // namespace

std::string Text(const Bytes& bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size();) {
    std::size_t run = 1;
    while (i + run < bytes.size() && bytes[i + run] == bytes[i]) {
      ++run;
    }
    const bool isLong = run >= kShortestRun;
    for (std::size_t written = 0; written < (isLong ? 1 : run); ++written) {
      text += (text.empty() ? "" : " ") + Hexadecimal(bytes[i]);
    }
    text += isLong ? "*" + std::to_string(run) : "";
    i += run;
  }
  return text;
}

std::string Canonical(const std::string& text) {
  Bytes bytes;
  for (const auto& [word, times] : Words(text)) {
    bytes.insert(bytes.end(), static_cast<std::size_t>(times), Byte(word));
  }
  return Text(bytes);
}

std::string Times(int times, const std::string& text) {
  std::string result;
  for (int i = 0; i < times; ++i) {
    result += text + " ";
  }
  return result;
}

int Play(ScriptedPort& port, const std::string& text) {
  int reads = 0;
  for (const auto& [word, times] : Words(text)) {
    for (int i = 0; i < times; ++i) {
      PlayOne(port, word);
    }
    reads += times;
  }
  return reads;
}

}  // namespace wire
