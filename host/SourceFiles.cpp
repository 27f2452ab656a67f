#include "SourceFiles.h"

#include <fmt/format.h>

#include <algorithm>

#include "Peripherals.h"

namespace host {

namespace {

struct stat StatusOf(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    status = {};
  }
  return status;
}

bool IsSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

SourceFiles::SourceFiles(const PropertyMap& properties) {
  const auto list = properties.find(kUpdateListKey);
  if (list == properties.end()) {
    return;
  }
  for (const std::string& key : FileKeysOf(list->second)) {
    const auto path = properties.find(key);
    if (path != properties.end()) {
      iFiles.push_back({key, path->second, StatusOf(path->second)});
    }
  }
}

std::vector<std::string> SourceFiles::Changes() const {
  std::vector<std::string> changes;
  for (const File& file : iFiles) {
    if (!IsSame(file.status, StatusOf(file.path))) {
      changes.push_back(
          fmt::format("{}: the file '{}' was changed or replaced during the update.", file.key, file.path));
    }
  }
  return changes;
}

bool SourceFiles::Holds(const std::string& path) const {
  const struct stat status = StatusOf(path);
  return std::any_of(iFiles.begin(), iFiles.end(), [&status](const File& file) {
    return status.st_ino != 0 && file.status.st_dev == status.st_dev && file.status.st_ino == status.st_ino;
  });
}

}  // namespace host
