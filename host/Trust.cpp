#include "Trust.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace host {

namespace {

// In a folder with the sticky bit others may add names, but not take these away.
bool MayBeWrittenByOthers(const struct stat& status) {
  if (S_ISLNK(status.st_mode) || (S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0)) {
    return false;
  }
  return (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0);
}

std::optional<std::string> WhyPlaceUntrusted(const std::string& place) {
  struct stat status = {};
  if (lstat(place.c_str(), &status) != 0) {
    return std::nullopt;
  }
  if (status.st_uid != 0) {
    return fmt::format("'{}' belongs to another user than root", place);
  }
  if (MayBeWrittenByOthers(status)) {
    return fmt::format("others than root may write '{}'", place);
  }
  return std::nullopt;
}

std::optional<std::string> WhyWayUntrusted(const std::filesystem::path& path) {
  std::filesystem::path place;
  for (const std::filesystem::path& name : path) {
    place /= name;
    if (auto why = WhyPlaceUntrusted(place.string())) {
      return why;
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> WhyUntrusted(const std::string& path) {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::canonical(path, error);
  if (error) {
    return std::nullopt;
  }
  // The way as it is written shows the links, the other one where they lead.
  auto why = WhyWayUntrusted(std::filesystem::absolute(path, error).lexically_normal());
  return why ? why : WhyWayUntrusted(target);
}

}  // namespace host
