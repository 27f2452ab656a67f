// Real files for tests, and what the process has open.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

/// A new empty folder that everybody may enter, removed with its content at the end.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
      : iPath((parent / "peripheral-XXXXXX").string()) {
    if (mkdtemp(iPath.data()) == nullptr) {
      throw std::runtime_error("cannot make a folder like " + iPath);
    }
    constexpr auto kEverybodyMayEnter = std::filesystem::perms(0755);
    std::filesystem::permissions(iPath, kEverybodyMayEnter);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(iPath, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& Path() const { return iPath; }
  std::string Path(const std::string& name) const { return iPath + "/" + name; }

  /// Makes the file and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    WriteFile(Path(name), content);
    return Path(name);
  }

 private:
  std::string iPath;
};

inline std::string ContentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

/// How many descriptors of this process lead to `path`.
inline std::size_t OpenDescriptorsOf(const std::string& path) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    count += std::filesystem::read_symlink(entry.path(), gone) == path ? 1U : 0U;
  }
  return count;
}

/// How many descriptors this process has.
inline std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

/// While it lives the process has no more rights than an ordinary user, as which tests are run anyway except
/// in a container.
class OrdinaryUser {
 public:
  OrdinaryUser() : iFormer(geteuid()) { Become(iFormer == 0 ? kNobody : iFormer); }
  ~OrdinaryUser() { Become(iFormer); }
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

 private:
  static constexpr uid_t kNobody = 65534;

  static void Become(uid_t user) {
    if (seteuid(user) != 0) {
      std::abort();
    }
  }

  uid_t iFormer;
};
