#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Frames.h"

namespace proving {

/// The files of updates, made when they are first asked for and removed at the end. They lie in a folder of
/// their own, which is the working folder meanwhile: the names in logs are the same in every process.
class SourceFolder {
 public:
  SourceFolder();
  ~SourceFolder();
  SourceFolder(const SourceFolder&) = delete;
  SourceFolder& operator=(const SourceFolder&) = delete;

  /// An image of so many bytes; the same bytes for the same size, every time and everywhere.
  std::string ImagePath(std::uint32_t size);
  /// What a device holds of it: the image, padded with zeros to its last block's end.
  const std::vector<std::uint8_t>& Padded(std::uint32_t size);
  /// Whether an update with this image has this block to write: a command, the loader, or the image's block
  /// of that number.
  bool IsDue(const Frame& frame, std::uint32_t imageSize);
  /// A loader program of one block.
  std::string LoaderPath() const { return "loader.bin"; }
  /// A file that passes for a serial port while the module looks for one.
  std::string PortPath() const { return "port"; }

 private:
  struct Image {
    std::string path;
    std::vector<std::uint8_t> padded;
  };

  const Image& Find(std::uint32_t size);

  std::filesystem::path iPrevious;
  std::filesystem::path iFolder;
  std::set<std::vector<std::uint8_t>> iFirstBlocks;  ///< of commands and the loader
  std::map<std::uint32_t, Image> iImages;
};

}  // namespace proving
