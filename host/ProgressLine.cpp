#include "ProgressLine.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace host {

namespace {

constexpr int kMinBarWidth = 10;
constexpr int kMaxBarWidth = 50;
constexpr int kBesideBar = 4;  // brackets and two blanks
constexpr int kGap = 2;
// Some terminals would begin another line after the last column, and "^C" finds room before it.
constexpr int kLeftFree = 3;
constexpr std::size_t kMaxShortStep = 16;
constexpr const char* kGreen = "\x1b[32m";
constexpr const char* kPlain = "\x1b[0m";

std::string Size(double bytes) {
  constexpr double kKibi = 1024;
  return bytes < kKibi * kKibi ? fmt::format("{:.1f} KiB", bytes / kKibi)
                               : fmt::format("{:.1f} MiB", bytes / kKibi / kKibi);
}

std::string Percent(const ProgressFacts& facts) {
  return fmt::format("{:3} %", facts.percent);
}

std::string WithShare(const std::string& device, const ProgressFacts& facts) {
  if (device.empty() || !facts.sent || facts.sent->deviceTotal <= 0) {
    return device;
  }
  return fmt::format("{} {} %", device, facts.sent->deviceBytes * 100 / facts.sent->deviceTotal);
}

std::string Device(const ProgressFacts& facts) {
  return WithShare(facts.device, facts);
}

std::string ShortDevice(const ProgressFacts& facts) {
  return WithShare(facts.device.substr(0, facts.device.find(' ')), facts);
}

std::string Step(const ProgressFacts& facts) {
  return facts.step;
}

// Without the file's name.
std::string ShortStep(const ProgressFacts& facts) {
  return facts.step.substr(0, std::min(facts.step.find(','), kMaxShortStep));
}

std::string ShortLeft(const ProgressFacts& facts) {
  const auto left = facts.pace.left;
  return left ? fmt::format("{}:{:02}", left->count() / 60, left->count() % 60) : "";
}

std::string Left(const ProgressFacts& facts) {
  return facts.pace.left ? ShortLeft(facts) + " left" : "";
}

std::string Bytes(const ProgressFacts& facts) {
  return facts.sent ? fmt::format("{} of {}", Size(static_cast<double>(facts.sent->deviceBytes)),
                                  Size(static_cast<double>(facts.sent->deviceTotal)))
                    : "";
}

std::string ShortBytes(const ProgressFacts& facts) {
  return facts.sent ? Size(static_cast<double>(facts.sent->deviceBytes)) : "";
}

std::string Rate(const ProgressFacts& facts) {
  return facts.pace.rate_Bps ? Size(*facts.pace.rate_Bps) + "/s" : "";
}

// A piece of the line: in full, and in short. Empty when nothing is known.
struct Piece {
  std::string (*full)(const ProgressFacts& facts);
  std::string (*shortened)(const ProgressFacts& facts);
};

// What counts most comes first, on the line and when room is given out. The bar comes after them all.
constexpr std::array<Piece, 6> kPieces = {{{Percent, Percent},
                                           {Device, ShortDevice},
                                           {Step, ShortStep},
                                           {Left, ShortLeft},
                                           {Bytes, ShortBytes},
                                           {Rate, Rate}}};

std::string Bar(int percent, int width, bool colour) {
  const int filled = width * percent / 100;
  return fmt::format("[{}{:#>{}}{}{:.>{}}]  ", colour ? kGreen : "", "", filled, colour ? kPlain : "", "",
                     width - filled);
}

// Gives room to each text in turn, as far as there is any; those without get none.
std::vector<std::string> Shortened(const ProgressFacts& facts, int& room) {
  std::vector<std::string> texts;
  for (const Piece& piece : kPieces) {
    const std::string text = piece.shortened(facts);
    const int width = static_cast<int>(text.size()) + (texts.empty() ? 0 : kGap);
    const bool fits = !text.empty() && width <= room;
    texts.push_back(fits ? text : "");
    room -= fits ? width : 0;
  }
  return texts;
}

void Lengthen(std::vector<std::string>& texts, const ProgressFacts& facts, int& room) {
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const std::string full = kPieces.at(i).full(facts);
    const int more = static_cast<int>(full.size()) - static_cast<int>(texts[i].size());
    if (!texts[i].empty() && more <= room) {
      texts[i] = full;
      room -= more;
    }
  }
}

}  // namespace

std::vector<std::string> DescribeBytes(const ProgressFacts& facts) {
  std::vector<std::string> known;
  for (const std::string& text : {facts.sent ? Device(facts) : "", Bytes(facts), Rate(facts), Left(facts)}) {
    if (!text.empty()) {
      known.push_back(text);
    }
  }
  return known;
}

std::string ProgressLine(const ProgressFacts& facts, int columns, bool colour) {
  int room = columns - kLeftFree;
  std::vector<std::string> texts = Shortened(facts, room);
  const bool hasBar = room >= kMinBarWidth + kBesideBar;
  room -= hasBar ? kMinBarWidth + kBesideBar : 0;
  Lengthen(texts, facts, room);
  texts.erase(std::remove(texts.begin(), texts.end(), ""), texts.end());
  const int width = std::min(kMinBarWidth + room, kMaxBarWidth);
  return (hasBar ? Bar(facts.percent, width, colour) : "") + fmt::format("{}", fmt::join(texts, "  "));
}

}  // namespace host
