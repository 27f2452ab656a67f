#include "Groups.h"

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

}  // namespace host
