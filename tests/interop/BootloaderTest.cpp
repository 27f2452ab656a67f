// Goal: a bootloader of the real world, U-Boot, takes what our sender sends, and holds every byte of it
// afterwards. Method: Debian's builds of it on emulated machines, as black boxes. The console is a port of
// the platform: commands are typed on it, the engine takes over while "loadx" waits, and "crc32" tells what
// is in the memory.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <iomanip>
#include <sstream>
#include <thread>

#include "Files.h"
#include "Process.h"
#include "Transfer.h"

namespace {

using testing::HasSubstr;

using Clock = std::chrono::steady_clock;
using Sizes = std::vector<std::size_t>;

constexpr int kAnswer_ms = 30'000;
constexpr int kTransfer_ms = 120'000;
constexpr unsigned kFormerByte = 0xA5;
constexpr char kPrompt[] = "\n=> ";

struct Machine {
  const char* name;
  Peer emulator;
  std::string firmware;
  std::size_t address;  ///< of free memory
  Sizes sizes;
};

std::ostream& operator<<(std::ostream& stream, const Machine& machine) {
  return stream << machine.name;
}

Machine Emulated(const char* name, const std::string& emulator, const std::string& package,
                 const std::vector<std::string>& model, const std::string& firmware, std::size_t address,
                 const Sizes& sizes) {
  std::vector<std::string> arguments = {"-accel",   "tcg",
                                        "-m",       "128",
                                        "-bios",    firmware,
                                        "-display", "none",
                                        "-nic",     "none",
                                        "-monitor", "none",
                                        "-chardev", "stdio,id=console,signal=off",
                                        "-serial",  "chardev:console"};
  arguments.insert(arguments.end(), model.begin(), model.end());
  return {name,
          {"/usr/bin/" + emulator, arguments, package, "script/bootstrap --full"},
          firmware,
          address,
          sizes};
}

// With a display adapter the x86 build now and then stops for good while it starts, before it has a console
// to type on. The last size of the faster machine has more than 256 blocks.
const Machine kMachines[] = {
    Emulated("arm64", "qemu-system-aarch64", "qemu-system-arm", {"-machine", "virt", "-cpu", "cortex-a57"},
             "/usr/lib/u-boot/qemu_arm64/u-boot.bin", 0x41000000, {1, 128, 129, 1024, 2500, 65'536, 300'000}),
    Emulated("x86", "qemu-system-i386", "qemu-system-x86", {"-vga", "none"},
             "/usr/lib/u-boot/qemu-x86/u-boot.rom", 0x1000000, {1, 128, 129, 1024, 2500, 65'536}),
};

std::string Hex(std::size_t number, int digits = 1) {
  std::ostringstream text;
  text << std::hex << std::setfill('0') << std::setw(digits) << number;
  return text.str();
}

std::uint32_t Crc32(const std::string& bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
  }
  return ~crc;
}

class UBoot : public testing::TestWithParam<Machine> {
 protected:
  void SetUp() override {
    RequireInstalled(GetParam().emulator.program, GetParam().emulator);
    RequireInstalled(GetParam().firmware, {"", {}, "u-boot-qemu", GetParam().emulator.bootstrap});
    iEmulator = std::make_unique<Process>(GetParam().emulator.program, GetParam().emulator.arguments,
                                          std::vector<std::string>{}, iLine.PeersEnd());
    iLine.Connect();
    ReadUntil("stop autoboot");
    Type(" ");
    ReadUntil(kPrompt);
  }

  void Type(const std::string& text) const {
    TUint32 written = 0;
    ASSERT_EQ(iLine.Port().Write(AsTChr(text), static_cast<TUint32>(text.size()), &written), 0);
  }

  // What the console says from now on, up to `text` and no byte further.
  std::string ReadUntil(const std::string& text) const {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kAnswer_ms);
    std::string said;
    while (said.find(text) == std::string::npos) {
      TUint8 byte = 0;
      TUint32 received = 0;
      if (Clock::now() > deadline || iLine.Port().Read(&byte, 1, &received) != 0) {
        ADD_FAILURE() << "no \"" << text << "\" came, but: " << said << iEmulator->Output();
        throw std::runtime_error("the bootloader does not answer");
      }
      said.append(received, static_cast<char>(byte));
      if (received == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    return said;
  }

  std::string Command(const std::string& command) const {
    Type(command + "\r");
    return ReadUntil(kPrompt);
  }

  // Sends the content; the engine's result, and what the console says afterwards.
  IXModem::TXModemError Load(const std::string& content, std::string& said) const {
    Type("loadx " + Hex(GetParam().address) + "\r");
    ReadUntil(" bps...\r\n");
    const IXModem::TXModemError result = SendFile(iLine, kTransfer_ms, iFolder.Write("image", content));
    said = ReadUntil(kPrompt);
    return result;
  }

  // What is there before must not look like what comes.
  void FillMemory(std::size_t size) const {
    Command("mw.b " + Hex(GetParam().address) + " " + Hex(kFormerByte) + " " + Hex(size));
  }

  std::string Crc32InMemory(std::size_t size) const {
    return Command("crc32 " + Hex(GetParam().address) + " " + Hex(size));
  }

  TemporaryFolder iFolder;
  PeerLine iLine;
  std::unique_ptr<Process> iEmulator;
};

TEST_P(UBoot, HoldsEverySizeWeSend) {
  for (const std::size_t size : GetParam().sizes) {
    SCOPED_TRACE(std::to_string(size) + " bytes");
    const std::string content = Content(size);
    const std::string expected = PaddedByUs(content);
    const std::string memory = expected + std::string(kLargeBlock, static_cast<char>(kFormerByte));
    FillMemory(memory.size());
    std::string said;
    EXPECT_EQ(Load(content, said), IXModem::EXModemOk);
    EXPECT_THAT(said, HasSubstr("= " + std::to_string(expected.size()) + " Bytes"));
    EXPECT_THAT(Crc32InMemory(memory.size()), HasSubstr("==> " + Hex(Crc32(memory), 8)));
  }
}

TEST_P(UBoot, TakesAnEmptyFile) {
  std::string said;
  EXPECT_EQ(Load("", said), IXModem::EXModemOk);
  EXPECT_THAT(said, HasSubstr("= 0 Bytes"));
}

INSTANTIATE_TEST_SUITE_P(On, UBoot, testing::ValuesIn(kMachines),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
