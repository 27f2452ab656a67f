// What the tests against foreign programs share: one transfer between the engine and a peer, watched, and
// what belongs in a file.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "IXModem.h"
#include "PeerLine.h"

constexpr std::size_t kSmallBlock = 128;
constexpr std::size_t kLargeBlock = 1024;

/// A foreign program that speaks XMODEM over its standard input and output.
struct Peer {
  std::string program;  ///< its path
  std::vector<std::string> arguments;
  std::string package;    ///< where Debian has it
  std::string bootstrap;  ///< what installs that package
};

/// How a transfer is done; as it stands here, a file over a perfect line without a speed.
struct Way {
  unsigned baud = PeerLine::kUnpaced;
  bool buffer = false;                ///< by SendBuffer or ReceiveBuffer
  std::optional<std::size_t> spoilt;  ///< the number of a byte from the peer that arrives wrong
  int limit_ms = 60'000;              ///< after which the engine is stopped and the peer killed
};

/// How a transfer went on both sides.
struct Outcome {
  IXModem::TXModemError result;         ///< of the engine
  int peerStatus;                       ///< as Process::WaitForEnd tells it
  std::string peerSaid;                 ///< on its standard error
  std::string fromPeer;                 ///< what it sent
  std::optional<std::string> received;  ///< the content that the receiver holds, if it has made a file
  double seconds;                       ///< from the peer's start to the engine's end

  /// Whether both sides say that it succeeded, and the receiver holds `expected`.
  bool HasArrived(const std::string& expected) const;
};
std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);

/// Throws an error that tells what to do when the file, of the peer's package, is not there.
void RequireInstalled(const std::string& file, const Peer& peer);

/// Sends `content` to the peer, which gets the name of the file to write as its last argument.
Outcome SendTo(const Peer& peer, const std::string& content, const Way& way = {});

/// Receives `content` from the peer, which gets the name of the file to send as its last argument.
Outcome ReceiveFrom(const Peer& peer, const std::string& content, const Way& way = {});

/// Runs `operation` on an engine of its own over the line's port. The engine is stopped when `limit_ms`
/// passes, or the peer has gone and a second later the operation still runs.
IXModem::TXModemError RunEngine(const PeerLine& line, int limit_ms,
                                const std::function<IXModem::TXModemError(IXModem&)>& operation);

/// Sends the file at `path` by an engine of its own, watched likewise.
IXModem::TXModemError SendFile(const PeerLine& line, int limit_ms, const std::string& path);

/// Calls `check` with each of the sizes, a few at once, since some peers spend most of a transfer on waiting.
void ForEachSize(const std::vector<std::size_t>& sizes, const std::function<void(std::size_t)>& check);

/// `size` bytes of every value, the same ones for the same size. The last is 0x1A, with which others pad.
std::string Content(std::size_t size);

/// `content` and what our sender fills the last block up with: zeros up to 128 bytes where 128 hold what is
/// left, else up to 1024.
std::string PaddedByUs(const std::string& content);

/// `content` filled up with `filler` to whole blocks of `blockSize` bytes.
std::string Padded(std::string content, std::size_t blockSize, char filler);
