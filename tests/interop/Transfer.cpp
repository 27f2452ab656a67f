#include "Transfer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <random>
#include <stdexcept>

#include "Files.h"
#include "Process.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLookEvery(5);
// Counted, not timed: a machine that stands still takes the time from the engine, too.
constexpr int kLooksAfterPeer = 200;
constexpr int kPeersEnd_ms = 5000;
constexpr std::size_t kAtOnce = 5;

class NoProgress : public IXModemCallback {
  void IXModemProgress(TInt32 /*left*/, TInt32 /*total*/) override {}
};

std::optional<std::string> FileIfThere(const std::string& path) {
  return std::filesystem::exists(path) ? std::optional(ContentOf(path)) : std::nullopt;
}

// Contents are too long to be printed.
std::string Comparison(const std::string& actual, const std::string& expected) {
  const auto at = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end()).first;
  return std::to_string(actual.size()) + " bytes where " + std::to_string(expected.size()) +
         " are expected, the same up to offset " + std::to_string(at - actual.begin());
}

// One transfer: the engine's operation against the peer on a line of their own. What the receiver holds is
// for the caller to add.
Outcome Transfer(const Peer& peer, const std::string& peersFile, const Way& way,
                 const std::function<IXModem::TXModemError(IXModem&)>& operation) {
  RequireInstalled(peer.program, peer);
  std::vector<std::string> arguments = peer.arguments;
  arguments.push_back(peersFile);
  PeerLine line(way.baud);
  if (way.spoilt) {
    line.SpoilFromPeer(*way.spoilt);
  }
  const Clock::time_point start = Clock::now();
  Process process(peer.program, arguments, {}, line.PeersEnd());
  line.Connect();
  Outcome outcome = {};
  outcome.result = RunEngine(line, way.limit_ms, operation);
  outcome.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  outcome.peerStatus = process.WaitForEnd(kPeersEnd_ms);
  outcome.peerSaid = process.Output();
  outcome.fromPeer = line.FromPeer();
  return outcome;
}

}  // namespace

bool Outcome::HasArrived(const std::string& expected) const {
  if (received && *received != expected) {
    ADD_FAILURE() << "the receiver holds " << Comparison(*received, expected);
  }
  return result == IXModem::EXModemOk && peerStatus == 0 && received == expected;
}

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "the engine's result is " << outcome.result << ", the receiver holds "
                << (outcome.received ? std::to_string(outcome.received->size()) + " bytes" : "no file")
                << ", the peer exited with " << outcome.peerStatus << " and said: " << outcome.peerSaid;
}

void RequireInstalled(const std::string& file, const Peer& peer) {
  if (access(file.c_str(), R_OK) != 0) {
    throw std::runtime_error(file + " is missing (package " + peer.package + "); " + peer.bootstrap +
                             " installs it");
  }
}

Outcome SendTo(const Peer& peer, const std::string& content, const Way& way) {
  const TemporaryFolder folder;
  const std::string source = folder.Write("sent", content);
  const std::string target = folder.Path("received");
  NoProgress progress;
  Outcome outcome = Transfer(peer, target, way, [&](IXModem& engine) {
    return way.buffer ? engine.SendBuffer(AsTChr(content), static_cast<TInt32>(content.size()))
                      : engine.SendFile(AsTChr(source), progress);
  });
  outcome.received = FileIfThere(target);
  return outcome;
}

Outcome ReceiveFrom(const Peer& peer, const std::string& content, const Way& way) {
  const TemporaryFolder folder;
  const std::string source = folder.Write("sent", content);
  const std::string target = folder.Path("received");
  std::vector<TUint8> buffer(content.size() + kLargeBlock);
  TInt32 received = 0;
  Outcome outcome = Transfer(peer, source, way, [&](IXModem& engine) {
    return way.buffer ? engine.ReceiveBuffer(buffer.data(), static_cast<TInt32>(buffer.size()), &received)
                      : engine.ReceiveFile(AsTChr(target));
  });
  outcome.received =
      way.buffer ? std::string(buffer.begin(), buffer.begin() + received) : FileIfThere(target);
  return outcome;
}

IXModem::TXModemError RunEngine(const PeerLine& line, int limit_ms,
                                const std::function<IXModem::TXModemError(IXModem&)>& operation) {
  const std::unique_ptr<IXModem> engine(IXModem::Create(&line.Port()));
  auto result = std::async(std::launch::async, [&] { return operation(*engine); });
  const Clock::time_point deadline = Clock::now() + milliseconds(limit_ms);
  int looksLeft = kLooksAfterPeer;
  while (result.wait_for(kLookEvery) != std::future_status::ready) {
    looksLeft -= line.PeerHasGone() ? 1 : 0;
    if (looksLeft < 0 || Clock::now() > deadline) {
      engine->Stop();
    }
  }
  return result.get();
}

IXModem::TXModemError SendFile(const PeerLine& line, int limit_ms, const std::string& path) {
  NoProgress progress;
  return RunEngine(line, limit_ms, [&](IXModem& engine) { return engine.SendFile(AsTChr(path), progress); });
}

void ForEachSize(const std::vector<std::size_t>& sizes, const std::function<void(std::size_t)>& check) {
  for (std::size_t first = 0; first < sizes.size(); first += kAtOnce) {
    std::vector<std::future<void>> running;
    for (std::size_t i = first; i < std::min(first + kAtOnce, sizes.size()); ++i) {
      running.push_back(std::async(std::launch::async, [&check, size = sizes[i]] {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        check(size);
      }));
    }
    for (std::future<void>& one : running) {
      one.get();
    }
  }
}

std::string Content(std::size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string content(size, '\0');
  std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random()); });
  if (size > 0) {
    content.back() = '\x1A';
  }
  return content;
}

std::string Padded(std::string content, std::size_t blockSize, char filler) {
  content.resize((content.size() + blockSize - 1) / blockSize * blockSize, filler);
  return content;
}

std::string PaddedByUs(const std::string& content) {
  const std::size_t left = content.size() % kLargeBlock;
  return Padded(content, left <= kSmallBlock ? kSmallBlock : kLargeBlock, '\0');
}
