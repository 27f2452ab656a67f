#include "SourceFolder.h"

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <random>

namespace proving {

namespace {

constexpr std::uint32_t kLoaderSize = 100;
constexpr std::size_t kSmallBlock = 128;
constexpr std::uint8_t kCan = 0x18;

// No CAN, so that six of them on the wire are a cancellation.
std::vector<std::uint8_t> MakeBytes(std::uint32_t size) {
  std::mt19937 random(size + 1);
  std::vector<std::uint8_t> bytes;
  bytes.reserve(size);
  while (bytes.size() < size) {
    const auto byte = static_cast<std::uint8_t>(random());
    if (byte != kCan) {
      bytes.push_back(byte);
    }
  }
  return bytes;
}

void WriteFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::size_t PaddedSize(std::size_t size) {
  const std::size_t tail = size % 1024;
  return size - tail + (tail == 0 ? 0 : (tail <= 128 ? 128 : 1024));
}

}  // namespace

SourceFolder::SourceFolder() : iPrevious(std::filesystem::current_path()) {
  std::string pattern = (std::filesystem::temp_directory_path() / "proving-XXXXXX").string();
  iFolder = mkdtemp(pattern.data());
  std::filesystem::current_path(iFolder);
  std::vector<std::uint8_t> loader = MakeBytes(kLoaderSize);
  WriteFile(LoaderPath(), loader);
  loader.resize(kSmallBlock, 0);
  iFirstBlocks.insert(loader);
  for (const std::string command : {"wr 1000", "gt 1000", "wr 8000", "ck 8000"}) {
    std::vector<std::uint8_t> block(command.begin(), command.end());
    block.resize(kSmallBlock, 0);
    iFirstBlocks.insert(block);
  }
  WriteFile(PortPath(), {});
}

SourceFolder::~SourceFolder() {
  std::filesystem::current_path(iPrevious);
  std::filesystem::remove_all(iFolder);
}

std::string SourceFolder::ImagePath(std::uint32_t size) {
  return Find(size).path;
}

const std::vector<std::uint8_t>& SourceFolder::Padded(std::uint32_t size) {
  return Find(size).padded;
}

bool SourceFolder::IsDue(const Frame& frame, std::uint32_t imageSize) {
  const std::vector<std::uint8_t>& image = Padded(imageSize);
  // Numbers begin anew behind 255; of the image's blocks one in 256 has this one.
  for (std::size_t block = frame.number == 0 ? 255 : frame.number - 1U; block * 1024 < image.size();
       block += 256) {
    const auto begin = image.begin() + static_cast<std::ptrdiff_t>(block * 1024);
    const auto rest = static_cast<std::size_t>(image.end() - begin);
    if (std::min<std::size_t>(rest, 1024) == frame.data.size() &&
        std::equal(frame.data.begin(), frame.data.end(), begin)) {
      return true;
    }
  }
  return frame.number == 1 && iFirstBlocks.count(frame.data) != 0;
}

const SourceFolder::Image& SourceFolder::Find(std::uint32_t size) {
  const auto found = iImages.find(size);
  if (found != iImages.end()) {
    return found->second;
  }
  Image image{"image-" + std::to_string(size) + ".bin", MakeBytes(size)};
  WriteFile(image.path, image.padded);
  image.padded.resize(PaddedSize(size), 0);
  return iImages.emplace(size, std::move(image)).first->second;
}

}  // namespace proving
