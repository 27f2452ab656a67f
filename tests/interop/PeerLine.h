// A serial line with a foreign program at its other end.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>

#include "Descriptor.h"
#include "ISerialPort.h"

/// One port of the platform, on a pseudo-terminal, and one end of a socket pair for the peer's standard input
/// and output; between them two threads move the bytes, at the speed of a line where one is wanted. Peers get
/// no terminal because some flush its input after each answer and its output when they exit, by which they
/// lose what a real line would have delivered.
class PeerLine {
 public:
  static constexpr unsigned kUnpaced = 0;

  /// Opens the port. `baud` is in bit/s, 10 of which make a byte.
  explicit PeerLine(unsigned baud = kUnpaced);
  ~PeerLine();
  PeerLine(const PeerLine&) = delete;
  PeerLine& operator=(const PeerLine&) = delete;

  /// Our end. Of the platform, which keeps it when the line goes.
  ISerialPort& Port() const { return *iPort; }

  /// What the peer is to be started with.
  int PeersEnd() const { return iPeersEnd.Get(); }

  /// The byte that comes as number `offset` from the peer will arrive with one bit turned over. Before
  /// Connect.
  void SpoilFromPeer(std::size_t offset) { iSpoilt = offset; }

  /// To be called once, when the peer has been started: lets the bytes flow.
  void Connect();

  /// Whether the peer has closed its end, and all that it sent is in the port.
  bool PeerHasGone() const { return iPeerHasGone; }

  /// What the peer has sent so far.
  std::string FromPeer() const;

 private:
  PeerLine(unsigned baud, std::array<int, 2> ends);

  void Move(int from, int to, const std::function<void(char* bytes, std::size_t count)>& look);
  void RecordAndSpoil(char* bytes, std::size_t count);
  bool WriteAll(int to, const char* bytes, std::size_t count) const;
  bool Await(int descriptor, short event) const;

  unsigned iBaud;
  std::size_t iSpoilt = std::numeric_limits<std::size_t>::max();
  CDescriptor iMaster;
  CDescriptor iOurEnd;
  CDescriptor iPeersEnd;
  ISerialPort* iPort = nullptr;
  std::atomic<bool> iEnding{false};
  std::atomic<bool> iPeerHasGone{false};
  mutable std::mutex iMutex;
  std::string iFromPeer;
  std::thread iToPeerMover;
  std::thread iFromPeerMover;
};
