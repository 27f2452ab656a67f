// Traces made by hand, for tests.
#pragma once

#include <string>

#include "trace/Record.h"

namespace trace_script {

using host::trace::Kind;
using host::trace::Trace;

/// A row of characters with a trailer behind it, whose bytes are not computed by what is tested: the CRC of
/// 128 bytes "wr 1000" with zeros behind is 2c43, that of "000" is f563 (Python's binascii.crc_hqx).
inline std::string Block(int number, const std::string& text, const std::string& trailer,
                         std::size_t size = 128) {
  std::string block(1, size == 128 ? '\x01' : '\x02');
  block += static_cast<char>(number);
  block += static_cast<char>(255 - number);
  block += text + std::string(size - text.size(), '\0');
  return block + trailer;
}

constexpr const char* kWr1000Crc = "\x2c\x43";
constexpr const char* k000Crc = "\xf5\x63";

/// A trace in the making; each record comes 10 ms after the one before.
class Script {
 public:
  Script& Add(Kind kind, const std::string& payload) {
    iTrace.records.push_back({kind, iTime_us, payload});
    iTime_us += 10'000;
    return *this;
  }
  Script& Host(const std::string& bytes) { return Add(Kind::Sent, bytes); }
  Script& Device(const std::string& bytes) { return Add(Kind::Received, bytes); }
  Script& Wait_ms(std::uint64_t time_ms) {
    iTime_us += time_ms * 1000;
    return *this;
  }
  const Trace& Done() const { return iTrace; }

 private:
  Trace iTrace;
  std::uint64_t iTime_us = 0;
};

}  // namespace trace_script
