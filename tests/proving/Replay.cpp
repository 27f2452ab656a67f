#include "Replay.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <vector>

#include "Oracles.h"
#include "Run.h"
#include "Scenario.h"
#include "simulator/Xmodem.h"

namespace proving {

namespace {

using Bytes = std::vector<std::uint8_t>;

// A pause of this length within one direction parts what belongs together from what does not.
constexpr std::int64_t kPause_us = 500'000;

std::string NameOf(std::uint8_t byte) {
  switch (byte) {
    case simulator::kSoh:
      return "SOH";
    case simulator::kStx:
      return "STX";
    case simulator::kEot:
      return "EOT";
    case simulator::kAck:
      return "ACK";
    case simulator::kNak:
      return "NAK";
    case simulator::kCan:
      return "CAN";
    case simulator::kCrcRequest:
      return "'C'";
    default:
      break;
  }
  char text[5];
  std::snprintf(text, sizeof text, "%02x", byte);
  return text;
}

// The frame at the beginning of the bytes as text, and its length; nothing if there is none that is right.
std::optional<std::pair<std::string, std::size_t>> Frame(const std::uint8_t* bytes, std::size_t count) {
  const std::size_t size = bytes[0] == simulator::kSoh ? simulator::kShortBlock : simulator::kLongBlock;
  const bool isStart = bytes[0] == simulator::kSoh || bytes[0] == simulator::kStx;
  if (!isStart || count < size + 4 || bytes[1] + bytes[2] != 0xFF) {
    return std::nullopt;
  }
  const Bytes data(bytes + 3, bytes + 3 + size);
  for (const auto kind : {simulator::Trailer::kCrc, simulator::Trailer::kChecksum}) {
    const Bytes trailer = simulator::TrailerOf(data, kind);
    if (count >= 3 + size + trailer.size() && std::equal(trailer.begin(), trailer.end(), bytes + 3 + size)) {
      std::string text = NameOf(bytes[0]) + " block " + std::to_string(bytes[1]) + ", " +
                         std::to_string(size) +
                         (kind == simulator::Trailer::kCrc ? " bytes, CRC right" : " bytes, sum right");
      return std::pair(text, 3 + size + trailer.size());
    }
  }
  return std::nullopt;
}

class Page : public Recorder {
 public:
  void OnByte(std::int64_t time_us, Direction direction, std::uint8_t byte) override {
    if (direction != iDirection || time_us - iLast_us > kPause_us) {
      EndBurst();
      iDirection = direction;
      iFirst_us = time_us;
      iFirstOrder = iOrder++;
    }
    iLast_us = time_us;
    iBurst.push_back(byte);
  }

  void OnLine(std::int64_t time_us, const std::string& text) override {
    iRows.push_back({time_us, iOrder++, "", text});
  }

  void Print() {
    EndBurst();
    std::stable_sort(iRows.begin(), iRows.end(),
                     [](const Row& left, const Row& right) { return left.order < right.order; });
    for (const Row& row : iRows) {
      std::printf("%12.6f  %-46s| %s\n", static_cast<double>(row.time_us) / 1e6, row.wire.c_str(),
                  row.text.c_str());
    }
  }

 private:
  struct Row {
    std::int64_t time_us;
    int order;
    std::string wire;
    std::string text;
  };

  void EndBurst() {
    constexpr std::size_t kNamesInARow = 8;
    std::string names;
    std::size_t named = 0;
    for (std::size_t at = 0; at < iBurst.size();) {
      const auto frame = Frame(iBurst.data() + at, iBurst.size() - at);
      if (frame || named == kNamesInARow) {
        AddWire(names);
        names.clear();
        named = 0;
      }
      if (frame) {
        AddWire(frame->first);
        at += frame->second;
      } else {
        names += (named++ == 0 ? "" : " ") + NameOf(iBurst[at++]);
      }
    }
    AddWire(names);
    iBurst.clear();
  }

  void AddWire(const std::string& text) {
    if (!text.empty()) {
      iRows.push_back({iFirst_us, iFirstOrder, (iDirection == Direction::kOut ? "> " : "< ") + text, ""});
    }
  }

  std::vector<Row> iRows;
  Bytes iBurst;
  Direction iDirection = Direction::kOut;
  std::int64_t iFirst_us = 0;
  std::int64_t iLast_us = 0;
  int iFirstOrder = 0;
  int iOrder = 0;
};

void PrintHolding(const Holding& holding) {
  const std::size_t both = std::min(holding.flash.size(), holding.expected.size());
  std::size_t same = 0;
  while (same < both && holding.flash[same] == holding.expected[same]) {
    ++same;
  }
  std::printf("The %s device holds %zu bytes where %zu were due; the first %zu are the same",
              holding.device.c_str(), holding.flash.size(), holding.expected.size(), same);
  if (same < both) {
    std::printf(", then %02x in the place of %02x", holding.flash[same], holding.expected[same]);
  }
  std::printf(".\n");
}

}  // namespace

bool Replay(const std::string& id, SourceFolder& sources) {
  const auto scenario = ParseScenario(id);
  if (!scenario) {
    std::fprintf(stderr,
                 "prove: there is no run '%s'; an id looks like can/crc/1025/out:317:flip3 or storm/4711\n",
                 id.c_str());
    return false;
  }
  std::printf("%s\n", id.c_str());
  for (const Fault& fault : scenario->faults) {
    std::printf("  fault %s\n", Text(fault).c_str());
  }
  Page page;
  const Observation seen = Run(*scenario, sources, &page).Observe();
  page.Print();
  for (const std::string& line : seen.unknownLines) {
    std::printf("not documented: %s\n", line.c_str());
  }
  std::printf("204 told %u times, %u of them successes; trace %016llx\n", seen.results, seen.successes,
              static_cast<unsigned long long>(seen.trace));
  for (const Holding& holding : seen.wrongHoldings) {
    PrintHolding(holding);
  }
  if (ExcuseOf(seen) != Excuse::kNone) {
    std::printf("A false success that no host could have noticed: %s.\n", Name(ExcuseOf(seen)));
  }
  const auto broken = Broken(seen);
  for (const std::string& sentence : broken) {
    std::printf("BROKEN: %s\n", sentence.c_str());
  }
  const bool isSame = Run(*scenario, sources).Observe().trace == seen.trace;
  if (!isSame) {
    std::printf("BROKEN: a second run differed from the first in its bytes, events or log.\n");
  }
  return broken.empty() && isSame;
}

}  // namespace proving
