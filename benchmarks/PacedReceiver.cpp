// The far end of a serial line: a pseudo-terminal whose bytes are taken as a UART would send them, 10 bits
// each and one after the other, and an XMODEM receiver that answers at the same pace. It receives one
// transfer and prints how much of the line the sender has used.
//
// The UART's clock is kept by arithmetic: a byte ends one byte time after the one before it, or after the
// moment in which it was taken from the host if the line had gone idle. Waiting only has to notice that a
// moment has passed, so a late wake-up in the middle of a block costs nothing. Where it would cost, at the
// turn from one side to the other, the program does not sleep but looks again and again.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "Descriptor.h"
#include "simulator/Xmodem.h"

namespace {

using simulator::kAck;
using simulator::kCan;
using simulator::kCrcRequest;
using simulator::kEot;
using simulator::kLongBlock;
using simulator::kNak;
using simulator::kShortBlock;
using simulator::kSoh;
using simulator::kStx;

using Nanos = std::int64_t;

constexpr Nanos kSecond = 1'000'000'000;
// Often, so that a sender's start is measured and not when it falls between two of these.
constexpr Nanos kSolicitEvery = kSecond / 5;
constexpr Nanos kSilence = 10 * kSecond;
// Sleeping is for waits that are longer than this; the scheduler may take as long to wake a sleeper.
constexpr Nanos kTooShortToSleep = 400'000;
// How long a turn is watched without a pause, before the program sleeps until something comes.
constexpr Nanos kWatchfulFor = 2'000'000;

Nanos Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

void SleepUntil(Nanos moment) {
  if (moment - Now() > kTooShortToSleep) {
    const Nanos wake = moment - kTooShortToSleep;
    const timespec until{static_cast<time_t>(wake / kSecond), static_cast<long>(wake % kSecond)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
  }
  while (Now() < moment) {
  }
}

[[noreturn]] void Give(const char* up) {
  std::fprintf(stderr, "paced-receiver: %s\n", up);
  std::exit(1);
}

class Terminal {
 public:
  Terminal() : iMaster(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
    if (!iMaster.IsOpen() || grantpt(Master()) != 0 || unlockpt(Master()) != 0 ||
        ptsname_r(Master(), iName.data(), iName.size()) != 0) {
      Give("there is no pseudo-terminal to be had; is /dev/pts mounted?");
    }
    iSlave = OpenSlave(iName.data());
  }
  ~Terminal() {
    if (iSlave != -1) {
      close(iSlave);
    }
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  const char* Name() const { return iName.data(); }
  int Master() const { return iMaster.Get(); }

  /// Waits until the sender has closed the port: what it had not read yet would go with the terminal.
  void AwaitSendersEnd() {
    close(iSlave);
    iSlave = -1;
    pollfd end{Master(), 0, 0};
    poll(&end, 1, kSendersEnd_ms);
  }

 private:
  static constexpr int kSendersEnd_ms = 3000;

  // Held open so that the line stays up, and raw, before the sender comes and while it goes.
  static int OpenSlave(const char* name) {
    const int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    if (slave == -1 || tcgetattr(slave, &settings) != 0) {
      Give("the pseudo-terminal cannot be set up");
    }
    cfmakeraw(&settings);
    tcsetattr(slave, TCSANOW, &settings);
    return slave;
  }

  CDescriptor iMaster;
  std::array<char, 64> iName{};
  int iSlave = -1;
};

/// Both directions of the line. At 0 baud bytes take no time.
class Uart {
 public:
  Uart(const Terminal& terminal, std::int64_t baud)
      : iTerminal(terminal), iByteTime(baud > 0 ? 10 * kSecond / baud : 0), iPaced(baud > 0) {}

  /// The next byte from the host, or -1 when none has come by `deadline`. It may be on the line still: Send()
  /// waits for its end, and the next bytes are taken when half of the UART's memory is free again.
  int Receive(Nanos deadline) {
    if (iNext == iEnd) {
      SleepUntil(iLastEnd - iByteTime * static_cast<Nanos>(kFifo / 2));
      if (!Fill(deadline)) {
        return -1;
      }
    }
    iLastEnd = std::max(iLastEnd, iFilledAt) + iByteTime;
    return iFifo[iNext++];
  }

  void Send(std::uint8_t byte) {
    const Nanos end = std::max(Now(), iLastEnd) + iByteTime;
    SleepUntil(end);
    if (write(iTerminal.Master(), &byte, 1) != 1) {
      Give("the host takes no answers any more");
    }
    iSentAt = end;
  }

  /// When the first bit of the byte that was received last was on the line.
  Nanos LastStart() const { return iLastEnd - iByteTime; }
  /// When the last bit of the byte that was sent last was on the line.
  Nanos SentAt() const { return iSentAt; }

 private:
  bool Fill(Nanos deadline) {
    const Nanos watchful = Now() + kWatchfulFor;
    for (;;) {
      const std::size_t room = iPaced ? kFifo / 2 : iFifo.size();
      const ssize_t count = read(iTerminal.Master(), iFifo.data(), room);
      if (count > 0) {
        iFilledAt = Now();
        iNext = 0;
        iEnd = static_cast<std::size_t>(count);
        return true;
      }
      const Nanos now = Now();
      if (now >= deadline) {
        return false;
      }
      if (now > watchful) {
        pollfd host{iTerminal.Master(), POLLIN, 0};
        poll(&host, 1, static_cast<int>((deadline - now) / 1'000'000 + 1));
      }
    }
  }

  // A driver hands bytes to the UART in pieces; this is the UART's own memory.
  static constexpr std::size_t kFifo = 64;

  const Terminal& iTerminal;
  const Nanos iByteTime;
  const bool iPaced;
  std::array<std::uint8_t, 4096> iFifo{};
  std::size_t iNext = 0;
  std::size_t iEnd = 0;
  Nanos iFilledAt = 0;
  Nanos iLastEnd = 0;
  Nanos iSentAt = 0;
};

std::array<std::uint16_t, 256> MakeCrcTable() {
  std::array<std::uint16_t, 256> table{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    unsigned crc = byte << 8;
    for (int bit = 0; bit < 8; ++bit) {
      crc = crc & 0x8000 ? (crc << 1) ^ 0x1021 : crc << 1;
    }
    table[byte] = static_cast<std::uint16_t>(crc);
  }
  return table;
}

/// One transfer with CRC, as a device would take it.
class Transfer {
 public:
  Transfer(Uart& uart, std::FILE* out) : iUart(uart), iOut(out) {}

  /// Receives it to its end; gives up with a message when the sender is silent or cancels.
  void Run(int patience_s) {
    int start = Solicit(patience_s);
    iFirstStart = iUart.LastStart();
    while (start != kEot) {
      if (start == kCan) {
        Give("the sender has cancelled");
      }
      if (start != kSoh && start != kStx) {
        Give("a block begins with a byte that begins none");
      }
      TakeBlock(start == kSoh ? kShortBlock : kLongBlock);
      start = NextByte();
    }
    iUart.Send(kAck);
  }

  void Print(std::int64_t baud) const {
    const auto seconds = static_cast<double>(iLastAck - iFirstStart) / static_cast<double>(kSecond);
    const double limit = baud > 0 ? static_cast<double>(iLineBytes) * 10 / static_cast<double>(baud) : 0;
    std::printf(
        "{\"baud\": %lld, \"blocks\": %d, \"naks\": %d, \"payload_bytes\": %lld, \"seconds\": %.6f, "
        "\"payload_bytes_per_s\": %.1f, \"share_of_limit\": %.5f}\n",
        static_cast<long long>(baud), iBlocks, iNaks, static_cast<long long>(iPayload), seconds,
        static_cast<double>(iPayload) / seconds, limit / seconds);
  }

 private:
  int Solicit(int patience_s) {
    // What a device says before the port is open would be lost on a real line.
    SleepUntil(Now() + kSolicitEvery);
    for (Nanos tries = 0; tries < patience_s * kSecond / kSolicitEvery; ++tries) {
      iUart.Send(kCrcRequest);
      const int byte = iUart.Receive(Now() + kSolicitEvery);
      if (byte != -1) {
        return byte;
      }
    }
    Give("no sender has come");
  }

  int NextByte() {
    const int byte = iUart.Receive(Now() + kSilence);
    return byte != -1 ? byte : (Give("the sender is silent"), -1);
  }

  void TakeBlock(std::size_t size) {
    static const std::array<std::uint16_t, 256> table = MakeCrcTable();
    std::array<std::uint8_t, kLongBlock> data;
    const int number = NextByte();
    const int complement = NextByte();
    unsigned crc = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const int byte = NextByte();
      data[i] = static_cast<std::uint8_t>(byte);
      crc = ((crc << 8) & 0xFFFF) ^ table[((crc >> 8) ^ static_cast<unsigned>(byte)) & 0xFF];
    }
    const int high = NextByte();
    const int low = NextByte();
    iLineBytes += static_cast<std::int64_t>(3 + size + 2 + 1);
    if (number + complement != 255 || static_cast<unsigned>((high << 8) | low) != crc) {
      ++iNaks;
      iUart.Send(kNak);
      return;
    }
    if (number == ((iBlocks + 1) & 0xFF)) {
      ++iBlocks;
      iPayload += static_cast<std::int64_t>(size);
      if (iOut != nullptr) {
        std::fwrite(data.data(), 1, size, iOut);
      }
    }
    iUart.Send(kAck);
    iLastAck = iUart.SentAt();
  }

  Uart& iUart;
  std::FILE* iOut;
  Nanos iFirstStart = 0;
  Nanos iLastAck = 0;
  std::int64_t iPayload = 0;
  std::int64_t iLineBytes = 0;
  int iBlocks = 0;
  int iNaks = 0;
};

struct Settings {
  std::int64_t baud = 115200;
  int patience_s = 20;
  std::string link;
  std::string out;
};

constexpr char kUsage[] =
    "usage: paced-receiver [--baud N] [--link PATH] [--out FILE] [--patience SECONDS]\n"
    "Makes a pseudo-terminal, names it, receives one XMODEM transfer at N baud (0: unpaced; 115200 if not\n"
    "said) and prints payload rate and share of the protocol's limit, first block to last ACK, as JSON.\n"
    "  --link PATH  also makes a symbolic link to the port\n"
    "  --out FILE   keeps what was received, padding included\n";

Settings ParseCommandLine(int argc, char** argv) {
  const option options[] = {{"baud", required_argument, nullptr, 'b'},
                            {"link", required_argument, nullptr, 'l'},
                            {"out", required_argument, nullptr, 'o'},
                            {"patience", required_argument, nullptr, 'p'},
                            {nullptr, 0, nullptr, 0}};
  Settings settings;
  for (int option = 0; (option = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    switch (option) {
      case 'b':
        settings.baud = std::atoll(optarg);
        break;
      case 'l':
        settings.link = optarg;
        break;
      case 'o':
        settings.out = optarg;
        break;
      case 'p':
        settings.patience_s = std::atoi(optarg);
        break;
      default:
        std::fputs(kUsage, stderr);
        std::exit(2);
    }
  }
  return settings;
}

}  // namespace

int main(int argc, char** argv) {
  const Settings settings = ParseCommandLine(argc, argv);
  Terminal terminal;
  if (!settings.link.empty()) {
    unlink(settings.link.c_str());
    if (symlink(terminal.Name(), settings.link.c_str()) != 0) {
      Give("the link cannot be made; choose another path");
    }
  }
  std::FILE* const out = settings.out.empty() ? nullptr : std::fopen(settings.out.c_str(), "wb");
  if (!settings.out.empty() && out == nullptr) {
    Give("the file for what is received cannot be made; choose another path");
  }
  std::printf("port: %s\n", terminal.Name());
  std::fflush(stdout);
  Uart uart(terminal, settings.baud);
  Transfer transfer(uart, out);
  transfer.Run(settings.patience_s);
  transfer.Print(settings.baud);
  terminal.AwaitSendersEnd();
  return out == nullptr || std::fclose(out) == 0 ? 0 : 1;
}
