#include "trace/Record.h"

#include <fmt/format.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

namespace host::trace {

namespace {

// The first byte is none of a text, and what a transfer as text would do to a file shows in the line ends.
constexpr std::string_view kMagic("\x89PLT\r\n\x1a\n", 8);
constexpr std::uint16_t kVersion = 1;
constexpr std::size_t kVersion_bytes = 2;
constexpr std::size_t kHead_bytes = 1 + 4 + 8;
constexpr std::size_t kCheck_bytes = 4;
constexpr std::string_view kKinds = "SO><LCME";

void AppendNumber(std::string& text, std::uint64_t number, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; ++i) {
    text += static_cast<char>((number >> (8 * i)) & 0xFF);
  }
}

std::uint64_t NumberAt(std::string_view text, std::size_t place, std::size_t bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes; i > 0; --i) {
    number = (number << 8) | static_cast<unsigned char>(text[place + i - 1]);
  }
  return number;
}

// CRC-32 as in Ethernet and PNG.
std::uint32_t Crc32(std::string_view bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
    }
  }
  return ~crc;
}

// Reads the record at `place` and moves on behind it. Otherwise returns what is wrong with it.
std::string ReadRecord(std::string_view content, std::size_t& place, Record& record) {
  const std::size_t left = content.size() - place;
  if (left < kHead_bytes + kCheck_bytes) {
    return "is cut off";
  }
  const auto length = static_cast<std::size_t>(NumberAt(content, place + 1, 4));
  if (length > kMaxPayload_bytes || kKinds.find(content[place]) == std::string_view::npos) {
    return "is none";
  }
  if (left < kHead_bytes + length + kCheck_bytes) {
    return "is cut off";
  }
  const std::size_t checked = kHead_bytes + length;
  if (NumberAt(content, place + checked, kCheck_bytes) != Crc32(content.substr(place, checked))) {
    return "does not match its checksum";
  }
  record = {static_cast<Kind>(content[place]), NumberAt(content, place + 5, 8),
            std::string(content.substr(place + kHead_bytes, length))};
  place += checked + kCheck_bytes;
  return {};
}

Trace Foreign(std::string fault) {
  return {{}, Soundness::Foreign, std::move(fault)};
}

void Judge(Trace& trace, std::size_t place, const std::string& fault) {
  if (!fault.empty()) {
    trace.soundness = Soundness::Broken;
    trace.fault = fmt::format(
        "The trace breaks at byte {}: the record there {}. What stands before it is sound.", place, fault);
  } else if (trace.records.empty()) {
    trace.soundness = Soundness::Open;
    trace.fault = "Nothing was recorded: the trace holds no record.";
  } else if (trace.records.back().kind != Kind::End) {
    trace.soundness = Soundness::Open;
    trace.fault =
        "The trace has no end: the recording program was killed, or the machine lost its power. Everything "
        "up to there is sound.";
  } else {
    trace.soundness = Soundness::Whole;
  }
}

}  // namespace

std::string FileHeader() {
  std::string header(kMagic);
  AppendNumber(header, kVersion, kVersion_bytes);
  return header;
}

std::string Encode(const Record& record) {
  const std::string_view payload = std::string_view(record.payload).substr(0, kMaxPayload_bytes);
  std::string text(1, static_cast<char>(record.kind));
  AppendNumber(text, payload.size(), 4);
  AppendNumber(text, record.time_us, 8);
  text += payload;
  AppendNumber(text, Crc32(text), kCheck_bytes);
  return text;
}

Trace Decode(std::string_view content) {
  if (content.substr(0, kMagic.size()) != kMagic || content.size() < kMagic.size() + kVersion_bytes) {
    return Foreign("This is no trace of peripheralctl.");
  }
  const std::uint64_t version = NumberAt(content, kMagic.size(), kVersion_bytes);
  if (version != kVersion) {
    return Foreign(
        fmt::format("The trace has version {}, and this program reads version {}.", version, kVersion));
  }
  Trace trace;
  std::size_t place = kMagic.size() + kVersion_bytes;
  std::string fault;
  while (place < content.size() && fault.empty()) {
    Record record = {};
    fault = ReadRecord(content, place, record);
    if (fault.empty()) {
      trace.records.push_back(std::move(record));
    }
  }
  Judge(trace, place, fault);
  return trace;
}

Trace ReadTrace(const std::string& path) {
  std::ostringstream content;
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  content << file.rdbuf();
  if (!file || !content) {
    return Foreign(fmt::format("The file '{}' cannot be read: {}.", path,
                               errno != 0 ? std::generic_category().message(errno) : "it is empty"));
  }
  return Decode(content.str());
}

}  // namespace host::trace
