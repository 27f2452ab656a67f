#include "Trust.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace host {

namespace {

// With an access list the group's bits are those of its mask: who has them may be anybody that it names.
bool MayBeWrittenByAGroup(const std::string& place, const struct stat& status) {
  const bool hasList = lgetxattr(place.c_str(), "system.posix_acl_access", nullptr, 0) > 0;
  return (status.st_mode & S_IWGRP) != 0 && (status.st_gid != 0 || hasList);
}

// In a folder with the sticky bit others may add names, but not take these away.
bool MayBeWrittenByOthers(const std::string& place, const struct stat& status) {
  if (S_ISLNK(status.st_mode) || (S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0)) {
    return false;
  }
  return (status.st_mode & S_IWOTH) != 0 || MayBeWrittenByAGroup(place, status);
}

std::optional<std::string> WhyPlaceUntrusted(const std::string& place) {
  struct stat status = {};
  if (lstat(place.c_str(), &status) != 0) {
    return std::nullopt;
  }
  if (status.st_uid != 0) {
    return fmt::format("'{0}' belongs to another user than root (chown root '{0}' mends it)", place);
  }
  if (MayBeWrittenByOthers(place, status)) {
    return fmt::format("others than root may write '{0}' (chmod go-w '{0}' mends it)", place);
  }
  return std::nullopt;
}

// Goes the way to a file name by name, as the kernel does, through each link on it.
class Walk {
 public:
  explicit Walk(const std::filesystem::path& path) { Append(path); }

  std::optional<std::string> WhyUntrusted() {
    auto why = WhyPlaceUntrusted(iPlace.string());
    while (!why && !iNames.empty() && iLinks <= kMostLinks) {
      why = Step();
    }
    return why;
  }

 private:
  // The kernel follows no more; opening the file tells.
  static constexpr int kMostLinks = 40;

  std::optional<std::string> Step() {
    const std::filesystem::path name = iNames.back();
    iNames.pop_back();
    if (name == "..") {
      iPlace = iPlace.parent_path();
      return std::nullopt;
    }
    if (name.empty() || name == ".") {
      return std::nullopt;
    }
    const std::filesystem::path next = iPlace / name;
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(next, error);
    if (error) {
      iPlace = next;
    } else {
      ++iLinks;
      Append(target);
    }
    return WhyPlaceUntrusted(next.string());
  }

  void Append(const std::filesystem::path& path) {
    const std::filesystem::path relative = path.relative_path();
    const std::vector<std::filesystem::path> names(relative.begin(), relative.end());
    iNames.insert(iNames.end(), names.rbegin(), names.rend());
    if (path.is_absolute()) {
      iPlace = "/";
    }
  }

  std::filesystem::path iPlace;
  std::vector<std::filesystem::path> iNames;  ///< still to go; the next one is the last
  int iLinks = 0;
};

}  // namespace

std::optional<std::string> WhyUntrusted(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error || !std::filesystem::exists(absolute, error) ? std::nullopt : Walk(absolute).WhyUntrusted();
}

}  // namespace host
