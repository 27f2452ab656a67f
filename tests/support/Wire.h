#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SerialPorts.h"

/// What goes over a line, written as text that can be read: "01 01 FE 41 00*127 53 33" is a packet of 133
/// bytes.
namespace wire {

using Bytes = std::vector<std::uint8_t>;

/// The bytes as hexadecimal numbers; four and more equal ones in a row are written as "00*127".
std::string Text(const Bytes& bytes);

/// `text` in the way in which Text would write it, whatever way its runs are divided.
std::string Canonical(const std::string& text);

/// `text` as often as `times`.
std::string Times(int times, const std::string& text);

/// Lets `port` play a text of which every word is one read: a byte, or one of
///   "."  5001 ms pass without a byte: a wait for a reply is just over
///   "~"  20001 ms pass without a byte: a wait for the start of a transfer is just over
///   "!"  the port reports an error
/// each also with a number of times, as in ".*9". Returns the number of reads.
int Play(ScriptedPort& port, const std::string& text);

}  // namespace wire
