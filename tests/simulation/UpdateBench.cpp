#include "UpdateBench.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>

#include "FeatureEntry.h"
#include "FeatureEvents.h"
#include "SimulatedDevices.h"

extern "C" IFeatureModule2* FeatureCreate2(const TFeatureId&, IInterfaceBroker&, IEventBroker&,
                                           const IFeatureProperties&);

namespace {

constexpr std::uint32_t kTold[] = {EFeatureAnnounce, EPrepareResult, EInstallResult, EInstallProgress,
                                   EAbortResult};

std::filesystem::path MakeFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "update-bench-XXXXXX").string();
  return mkdtemp(pattern.data());
}

std::vector<std::uint8_t> RandomBytes(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> bytes(count);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
  return bytes;
}

void WriteFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The file's bytes, then zeros up to the end of its last block.
bool Holds(const std::vector<std::uint8_t>& memory, const std::vector<std::uint8_t>& file) {
  const std::size_t tail = file.size() % 1024;
  const std::size_t last = tail == 0 ? 0 : (tail <= 128 ? 128 : 1024);
  std::vector<std::uint8_t> expected = file;
  expected.resize(file.size() - tail + last, 0);
  return memory == expected;
}

std::string Describe(const TEvent& event) {
  const std::string id = std::to_string(event.id);
  const auto* bytes = static_cast<const char*>(event.data);
  if (event.id == EFeatureAnnounce) {
    return id + " " + std::string(bytes, event.length);
  }
  if (event.id == EInstallProgress) {
    return id + " " + std::to_string(static_cast<unsigned char>(bytes[KFeatureIdFieldSize])) + " %";
  }
  TBool flag = EFalse;
  std::memcpy(&flag, bytes + KFeatureIdFieldSize, sizeof flag);
  return id + " " + std::to_string(flag);
}

}  // namespace

std::int64_t SimulatedLine::AdvanceToArrival(std::int64_t limit_us) {
  std::int64_t now_us = iNow_us;
  iNow_us = limit_us;
  const bool waiting = iLine.NextEvent(now_us) <= now_us;
  while (!waiting && iLine.NextEvent(now_us) <= limit_us) {
    now_us = iLine.NextEvent(now_us);
    iLine.Advance(now_us);
    // Once all is done that was due, only a byte for the host is still to come now.
    if (iLine.Unplugged() || iLine.NextEvent(now_us) <= now_us) {
      return iNow_us = now_us;
    }
  }
  iLine.Advance(limit_us);
  return limit_us;
}

UpdateBench::UpdateBench(const std::string& devices, const simulator::Options& options,
                         const simulator::LineOptions& lineOptions)
    : iFolder(MakeFolder()), iDevices(simulator::MakeDevices(devices, options)) {
  iLine = std::make_unique<SimulatedLine>(*iDevices, lineOptions);
  MakeFiles(1500, 10'000);
  // The module's preparation opens the port as a file.
  WriteFile(PathOf("port"), {});
  iWorld.Plug(PathOf("port"), *iLine);
  iProperties.Set("updatelist", "xmodem");
  iProperties.Set("xmodemsource-image", PathOf("firmware.bin"));
  iProperties.Set("xmodemsource-loader", PathOf("loader.bin"));
  iProperties.Set("xmodemspeed", "115200");
  iProperties.Set("xmodemportname", PathOf("port"));
  iProperties.Set("xmodemramaddress", "1000");
  iProperties.Set("xmodemflashaddress", "8000");
  for (const std::uint32_t id : kTold) {
    iWorld.Subscribe({EUserEvent, id, 0, nullptr}, *this);
  }
  iModule.reset(FeatureCreate2(kFeatureId, iInterfaceBroker, iWorld, iProperties));
}

UpdateBench::~UpdateBench() {
  iModule.reset();
  std::filesystem::remove_all(iFolder);
}

void UpdateBench::MakeFiles(std::size_t loaderSize, std::size_t imageSize) {
  iLoader = RandomBytes(loaderSize, 1);
  iImage = RandomBytes(imageSize, 2);
  WriteFile(PathOf("loader.bin"), iLoader);
  WriteFile(PathOf("firmware.bin"), iImage);
}

void UpdateBench::Request(std::uint32_t id) {
  iWorld.Post({EUserEvent, id, static_cast<TUint32>(std::strlen(kFeatureId)), kFeatureId});
}

bool UpdateBench::WaitFor(std::uint32_t id, std::int64_t limit_ms) {
  const std::size_t before = CountTold(id);
  return iWorld.RunUntil([&] { return CountTold(id) > before; }, limit_ms);
}

bool UpdateBench::Update() {
  Request(EPrepareRequest);
  if (!WaitFor(EPrepareResult) || Events().back() != "202 1") {
    return false;
  }
  Request(EInstallRequest);
  return WaitFor(EInstallResult) && Events().back() == "204 1";
}

std::vector<std::string> UpdateBench::Events() const {
  std::vector<std::string> texts;
  std::transform(iTold.begin(), iTold.end(), std::back_inserter(texts),
                 [](const Told& told) { return told.text; });
  return texts;
}

std::vector<int> UpdateBench::Percentages() const {
  std::vector<int> percentages;
  for (const Told& told : iTold) {
    if (told.text.rfind("205 ", 0) == 0) {
      percentages.push_back(std::stoi(told.text.substr(4)));
    }
  }
  return percentages;
}

bool UpdateBench::RamHoldsLoader(std::size_t device) const {
  return Holds(iDevices->At(device).Ram().Contents(), iLoader);
}

bool UpdateBench::FlashHoldsImage(std::size_t device) const {
  return Holds(iDevices->At(device).Flash().Contents(), iImage);
}

void UpdateBench::OnEvent(const TEvent& event) {
  iTold.push_back({iWorld.Now_us(), Describe(event)});
}

std::size_t UpdateBench::CountTold(std::uint32_t id) const {
  const std::string prefix = std::to_string(id) + " ";
  return static_cast<std::size_t>(std::count_if(
      iTold.begin(), iTold.end(), [&](const Told& told) { return told.text.rfind(prefix, 0) == 0; }));
}
