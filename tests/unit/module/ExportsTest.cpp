// Goal: the module's shared library shows the world its interface and nothing else, and asks the world for
// its platform and the language's runtime and nothing else. Method: the built library is read with the binary
// utilities and loaded as a host does it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "FeatureEntry.h"
#include "RecordingBroker.h"

namespace {

using Names = std::set<std::string>;

// What the library defines for others, as it reads in source.
const Names kExports = {
    "FeatureType",
    "FeatureCreate2",
    "IFileHandler::FOpen(char const*, char const*)",
    "IFileHandler::FRead(void*, unsigned long, unsigned long, _IO_FILE*)",
    "IFileHandler::FWrite(void const*, unsigned long, unsigned long, _IO_FILE*)",
    "IFileHandler::FGets(char*, int, _IO_FILE*)",
    "IFileHandler::FSeek(_IO_FILE*, long, int)",
    "IFileHandler::FEof(_IO_FILE*)",
    "IFileHandler::FClose(_IO_FILE*)",
    "IFileHandler::FileExists(unsigned char const*)",
    "IFileHandler::FolderExists(unsigned char const*)",
    "IFileHandler::FileWritePerm(unsigned char const*)",
    "IFileHandler::MakeFolder(unsigned char const*)",
    "IFileHandler::RemoveFile(unsigned char const*)",
    "IFileHandler::MoveFile(unsigned char const*, unsigned char const*)",
    "IFileHandler::CopyFile(unsigned char const*, unsigned char const*)",
    "IFileHandler::FileSize(unsigned char const*)",
    "IFileHandler::Sync()",
    "IFileHandler::Umount(unsigned char const*)",
    "IFileHandler::RemoveFolder(unsigned char const*)",
    "IFileHandler::Mount(unsigned char const*, unsigned char const*, int, IFileHandler::TFileSystemFormat)",
    "IFileHandler::Mount(unsigned char const*, unsigned char const*, IFileHandler::TFileSystemFormat)",
    "IFileHandler::ReMount(unsigned char const*, unsigned char const*, IFileHandler::TFileSystemFormat)",
    "IFileHandler::Format(unsigned char const*, unsigned char const*, IFileHandler::TFileSystemFormat)",
    "IFileHandler::CheckFS(unsigned char const*, unsigned char const*, IFileHandler::TFileSystemFormat)",
    "IFileHandler::AvailableSpace(unsigned char const*, unsigned int*)",
    "ICmdHandler::SystemCmd(unsigned char const*)",
};

// The libraries it may need: the platform it must, of the others as many as the linker finds use for.
constexpr char kPlatform[] = PLATFORM_LIBRARY_NAME;
const Names kRuntime = {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6",
                        // Where the guard of the stack stands on some processors.
                        "ld-linux-armhf.so.3", "ld-linux-aarch64.so.1", "ld64.so.1"};

// In a build with sanitizers their runtimes come in addition, under names with a version behind.
#if defined(UNDER_ADDRESS_SANITIZER) || defined(UNDER_THREAD_SANITIZER)
const Names kSanitizers = {"libasan.so", "libtsan.so", "libubsan.so"};
#else
const Names kSanitizers = {};
#endif

bool IsSanitizer(const std::string& library) {
  return kSanitizers.count(library.substr(0, library.find(".so") + 3)) != 0;
}

// What `command` prints, line by line. No line at all where it fails.
std::vector<std::string> LinesOf(const std::string& command) {
  std::vector<std::string> lines;
  std::FILE* const output = popen(command.c_str(), "r");
  if (output == nullptr) {
    return {};
  }
  std::array<char, 4096> line;
  while (std::fgets(line.data(), line.size(), output) != nullptr) {
    lines.emplace_back(line.data());
    lines.back().erase(lines.back().find_last_not_of('\n') + 1);
  }
  return pclose(output) == 0 ? lines : std::vector<std::string>();
}

// "00000000000061c0 T FeatureType" is a symbol; size_t is spelled as on the processor at hand and always
// has an argument behind it.
Names DefinedSymbols() {
  Names names;
  for (const std::string& line : LinesOf(NM_PROGRAM " -D --defined-only -C '" MODULE_LIBRARY "'")) {
    std::string name = line.substr(std::min(line.find(' ') + 3, line.size()));
    for (std::size_t at;
         sizeof(std::size_t) == 4 && (at = name.find("unsigned int,")) != std::string::npos;) {
      name.replace(at, 13, "unsigned long,");
    }
    names.insert(name);
  }
  return names;
}

// " 0x0000000000000001 (NEEDED)  Shared library: [libc.so.6]"
Names NeededLibraries() {
  Names libraries;
  for (const std::string& line : LinesOf(READELF_PROGRAM " -d -W '" MODULE_LIBRARY "'")) {
    const std::size_t open = line.find('[');
    if (line.find("(NEEDED)") != std::string::npos && open != std::string::npos) {
      libraries.insert(line.substr(open + 1, line.rfind(']') - open - 1));
    }
  }
  return libraries;
}

TEST(Exports, AreExactlyTheInterface) {
  EXPECT_EQ(DefinedSymbols(), kExports);
}

TEST(Dependencies, ArePlatformAndRuntimeOnly) {
  Names needed = NeededLibraries();
  EXPECT_EQ(needed.erase(kPlatform), 1U) << "needs its platform " << kPlatform;
  EXPECT_EQ(needed.count("libc.so.6"), 1U);
  for (const std::string& library : needed) {
    EXPECT_TRUE(kRuntime.count(library) != 0 || IsSanitizer(library)) << "needs " << library;
  }
}

class Library : public testing::Test {
 protected:
  template <typename TFunction>
  TFunction Symbol(const char* name) {
    void* const library = dlopen(MODULE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(library, nullptr) << dlerror();
    return library == nullptr ? nullptr : reinterpret_cast<TFunction>(dlsym(library, name));
  }
};

TEST_F(Library, TellsItsFeatureType) {
  const auto featureType = Symbol<TFeatureTypeFunction>("FeatureType");
  ASSERT_NE(featureType, nullptr);
  EXPECT_STREQ(featureType(), "peripheralloader");
  EXPECT_EQ(featureType(), featureType());
}

TEST_F(Library, MakesAModuleThatTheHostDeletes) {
  const auto featureCreate = Symbol<TFeatureCreate2Function>("FeatureCreate2");
  ASSERT_NE(featureCreate, nullptr);
  RecordingBroker broker;
  FakeInterfaceBroker interfaces;
  FakeProperties properties;
  const std::unique_ptr<IFeatureModule2> module(featureCreate("abc", interfaces, broker, properties));
  const std::vector<std::string> created = {"subscribe 3/201", "subscribe 3/203", "subscribe 3/206",
                                            "post 3/200 abc"};
  EXPECT_EQ(broker.Summary(), created);
}

// ---- How it is compiled ----

std::string CompilerCommandOf(const std::string& source) {
  std::ifstream commands(COMPILE_COMMANDS);
  std::string line;
  while (std::getline(commands, line)) {
    if (line.find("\"command\"") != std::string::npos && line.find(source + "\"") != std::string::npos) {
      return line;
    }
  }
  return "";
}

// On processors with a fused multiply-add the prescribed percentages depend on it.
TEST(Compilation, KeepsFloatingPointOperationsApart) {
  EXPECT_NE(CompilerCommandOf("src/PeripheralLoader.cpp").find(" -ffp-contract=off "), std::string::npos);
}

TEST(Compilation, HidesWhatIsNotExported) {
  for (const char* source :
       {"src/PeripheralLoader.cpp", "src/XModem.cpp", "src/CmdHandler.cpp", "src/FileHandler.cpp"}) {
    EXPECT_NE(CompilerCommandOf(source).find(" -fvisibility=hidden "), std::string::npos) << source;
  }
}

}  // namespace
