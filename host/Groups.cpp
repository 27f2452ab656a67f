#include "Groups.h"

#include <fmt/format.h>
#include <grp.h>

#include <array>

namespace host {

std::string GroupName(gid_t id) {
  struct group entry = {};
  struct group* found = nullptr;
  std::array<char, 4096> names = {};
  getgrgid_r(id, &entry, names.data(), names.size(), &found);
  return found != nullptr ? found->gr_name : std::to_string(id);
}

std::string HowToGainAccess(const struct stat& device) {
  constexpr mode_t kGroupMay = S_IRGRP | S_IWGRP;
  constexpr gid_t kRoot = 0;
  if (device.st_gid != kRoot && (device.st_mode & kGroupMay) == kGroupMay) {
    return fmt::format("have your user added to the group {} and log in again", GroupName(device.st_gid));
  }
  return "use another port, or have a udev rule give it to a group of yours "
         "(GROUP=\"dialout\", MODE=\"0660\"): it is open to no group that users belong to";
}

}  // namespace host
