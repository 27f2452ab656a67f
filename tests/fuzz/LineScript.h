// What arrives over a line, as a text that people can read and a fuzzer can change byte by byte without
// losing the blocks' CRCs.
//
//   A N C X E   ACK, NAK, the request for CRC, CAN, EOT; after an EOT blocks are numbered from 1 again
//   [text]      the next block of 128 bytes: the text and zeros
//   {text}      the next block of 1024 bytes: the text again and again
//   =           the last block once more
//   ^           one block number is left out
//   %           the next block's trailer is wrong
//   #           blocks from here end in a checksum, or in a CRC again
//   , . ~       300 ms, 5001 ms or 20001 ms without a byte
//   !           the line reports an error
//   W<number>   writes fail from that one on
//   *<number>   what stands before it, so often in all
//   \<byte>     that byte as it is
//
// A blank or a line's end means nothing; any other byte stands for itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "SerialPorts.h"

namespace fuzz {

/// One thing that happens on the line.
struct LineStep {
  enum Kind { kByte, kSilence, kError } kind;
  std::uint8_t byte;
  std::uint64_t silence_ms;
};

struct LineScript {
  std::vector<LineStep> steps;
  int first_failing_write = 0;  ///< 0: none fails
};

/// Reads a script; every text is one. It ends where it would get longer than is good for a quick execution.
LineScript ParseLineScript(std::string_view text, std::size_t most_steps = 6000);

/// The bytes that arrive, in order.
std::string BytesOf(const LineScript& script);

/// How often `byte` arrives.
int Count(const LineScript& script, std::uint8_t byte);

/// How long nothing arrives, in all.
std::uint64_t Silence_ms(const LineScript& script);

/// Lets `port` play the script.
void Play(const LineScript& script, ScriptedPort& port);

}  // namespace fuzz
