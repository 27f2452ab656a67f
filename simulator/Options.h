#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "simulator/Micros.h"

namespace simulator {

/// The largest values that people may ask for.
constexpr int kMaxBaud = 100'000'000;
constexpr int kMaxSlow_ms = 3'600'000;
constexpr int kMaxPatience_s = 3'600;
constexpr int kMaxEvery = 1'000'000;

/// Something that a person would like to see in a log.
struct Milestone {
  Micros time_us;
  std::string device;
  std::string text;
};

/// Answer one command with a refusal.
struct Refusal {
  std::string verb;    ///< "wr", "gt" or "ck".
  int occurrence = 1;  ///< Which of its kind since the device was made, from 1; 0: each.
  std::string answer = "001";
};

/// Where a device dies: it neither hears nor says anything more until the power is cycled.
enum class SilentStage {
  kNone,
  kStart,     ///< It is switched off from the start.
  kVersion,   ///< The version text was sent.
  kWriteRam,  ///< A file for RAM was received; its answer is missing.
  kGo,        ///< "gt" was received; its answer is missing.
  kWriteFlash,
  kCheck,
  kBytes  ///< A number of bytes was received.
};

struct Silence {
  SilentStage stage = SilentStage::kNone;
  std::uint64_t bytes = 0;  ///< For kBytes.
};

/// What a device does wrong on purpose. Those that end an update (silent_after, cancel_after_bytes,
/// corrupt_flash, a refusal with an occurrence) happen once, so that the next update shows the recovery.
struct Faults {
  std::vector<Refusal> refusals;
  Silence silent_after;
  std::int64_t slow_ms = 0;              ///< Thinks so long before each answer.
  bool checksum = false;                 ///< Solicits with NAK: blocks end in a checksum, not a CRC.
  int nak_every = 0;                     ///< Answers every n-th sound block of a transfer with NAK.
  bool nak_first_eot = false;            ///< Answers the first EOT of a transfer with NAK.
  int damage_every = 0;                  ///< Sends every n-th block of a transfer with a wrong trailer.
  std::uint64_t cancel_after_bytes = 0;  ///< Cancels with two CAN after so many bytes received; 0: never.
  bool corrupt_flash = false;            ///< One bit of the first image written to flash is wrong.
};

/// What devices are like.
struct Options {
  std::string version_text = "Bootloader 1.0";
  std::uint64_t ram_base = 0x1000;
  std::uint64_t ram_size = 0x7000;
  std::uint64_t flash_base = 0x8000;
  std::uint64_t flash_size = std::uint64_t{32} * 1024 * 1024;
  int patience_s = 30;  ///< Waits so long for the host in the middle of an update, then begins anew.
  Faults faults;
  int faulty_device =
      0;  ///< Position of the only device in the list that has the faults, from 1; 0: all have.
  std::function<void(const Milestone&)> on_milestone;
};

/// What the line is like.
struct LineOptions {
  std::int64_t baud = 115200;  ///< 10 bits a byte in both directions; 0: bytes take no time.
  double noise_rate = 0;       ///< Share of bytes that are flipped, lost or preceded by a stray one.
  std::uint64_t noise_seed = 1;
  std::uint64_t unplug_after_bytes = 0;  ///< Unplugs once the device has received so many bytes; 0: never.
  Micros unplug_at_us = kNever;
};

/// Reads "wr|gt|ck[:N][=ANSWER]". False, with `refusal` as it was, if the text is none.
bool ParseRefusal(const std::string& text, Refusal& refusal);

/// Reads "start", "version", "wr-ram", "gt", "wr-flash", "ck" or a number of bytes from 1. False, with
/// `silence` as it was, if the text is none.
bool ParseSilence(const std::string& text, Silence& silence);

}  // namespace simulator
