#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace proving {

/// What a device's flash holds when a success is told, beside what it should hold.
struct Holding {
  std::string device;
  std::size_t index = 0;  ///< in the list of the line's devices
  std::vector<std::uint8_t> flash;
  std::vector<std::uint8_t> expected;  ///< the image, padded with zeros to its last block's end
  bool flashError = false;             ///< the first cell of its first image is wrong
  bool erasedAgain = false;            ///< it held the image before a second installation began to erase it
};

/// One transfer of the image, up to the beginning of the next file's.
struct Transfer {
  std::size_t begin;         ///< of its bytes among those that were delivered
  std::size_t end;           ///< behind the last of them
  std::uint32_t forgedAcks;  ///< ACKs that the host read and no device had sent
  std::uint32_t
      forgedEnds;  ///< bytes that a device could take for an EOT and that the host wrote within a block
};

/// What was seen of one run.
struct Observation {
  // The installation in which something goes wrong.
  std::uint32_t installs = 0;           ///< requests for an installation
  std::uint32_t results = 0;            ///< 204 told
  std::uint32_t successes = 0;          ///< of which with ETrue
  bool deleted = false;                 ///< the host deleted the module
  bool endedInTime = true;              ///< every installation had its 204, unless the module went away
  std::int64_t longestSilence_us = 0;   ///< between the request, each change of steps and the result
  bool workersEnded = true;             ///< and every upload's thread came to its end
  std::uint32_t aborts = 0;             ///< requests for an abort
  std::uint32_t abortResults = 0;       ///< 207 told
  std::uint32_t saidAfterDeletion = 0;  ///< events and log lines
  std::uint32_t wrongPayloads = 0;      ///< events of which a byte or the length is not as it must be
  std::uint32_t callsOffEventThread = 0;
  std::uint32_t progressFell = 0;  ///< of installations that ran alone
  std::uint32_t bytesBehindCancel = 0;
  std::uint32_t cancelsMissing = 0;  ///< transfers given up that the device was not told of
  std::uint32_t foreignFrames = 0;   ///< blocks that the host wrote and had not to write
  bool successDue = false;           ///< one byte within a block was spoilt, or nothing
  std::vector<std::string> unknownLines;

  // What a success was worth.
  std::vector<Holding> wrongHoldings;   ///< devices that did not hold the image when a success was told
  bool checkMissing = false;            ///< a CAN device was not asked to check, or refused
  std::uint32_t resets = 0;             ///< faults that reset a device
  std::vector<Transfer> transfers;      ///< of the image, to any device
  std::vector<std::uint8_t> delivered;  ///< all bytes as they reached the devices
  std::vector<std::uint8_t> takers;     ///< and for each the index of the device that had the line
  std::vector<std::uint8_t> written;    ///< all bytes as the host wrote them
  std::vector<std::size_t> bursts;      ///< where in them it began to write, having read or waited before

  // What was left when the module had been deleted.
  std::size_t threadsLeft = 0;
  std::size_t subscriptionsLeft = 0;
  std::size_t filesLeft = 0;
  std::size_t blocksLeft = 0;
  std::size_t filesKept = 0;  ///< files and buffers that a transfer without a start keeps on purpose

  // The update afterwards.
  bool recovered = false;

  std::uint32_t faultsHappened = 0;
  std::uint32_t bytesOut = 0;  ///< up to the last 204 of the installation
  std::uint32_t bytesIn = 0;
  std::uint64_t trace = 0;  ///< hash of every byte, event and log line with their times
};

}  // namespace proving
