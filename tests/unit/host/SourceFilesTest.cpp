// Goal: a file that is not the same after an update as before it is named, whatever was done to it.
// Method: files of the test's own; a table of what may be done to one.
#include "SourceFiles.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <functional>

#include "Files.h"

namespace {

using host::PropertyMap;
using host::SourceFiles;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SourceFilesTest : public testing::Test {
 protected:
  PropertyMap Properties(const char* list) const {
    return {{"updatelist", list},
            {"xmodemsource-image", iFolder.Path("image")},
            {"xmodemsource-loader", iFolder.Path("loader")},
            {"xmodemportname", "/dev/null"}};
  }

  // As old as a file is that was not written just now.
  std::string Make(const std::string& name, const std::string& content = "content") const {
    const std::string path = iFolder.Write(name, content);
    SetTime(path, 1'000'000'000, 0);
    return path;
  }

  static void SetTime(const std::string& path, time_t seconds, long nanoseconds) {
    const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  TemporaryFolder iFolder;
};

TEST_F(SourceFilesTest, WhatStaysAsItIsHasNotChanged) {
  Make("image");
  Make("loader");
  const SourceFiles files(Properties("xmodem;sanyoxmodem"));
  EXPECT_THAT(files.Changes(), IsEmpty());
}

TEST_F(SourceFilesTest, EveryChangeIsNoticed) {
  const std::string image = iFolder.Path("image");
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"appended",
       [&] {
         std::ofstream(image, std::ios::app) << "x";
         SetTime(image, 1'000'000'000, 0);
       }},
      {"rewritten", [&] { std::ofstream(image) << "CONTENT"; }},
      {"rewritten a second later", [&] { SetTime(image, 1'000'000'001, 0); }},
      {"rewritten within the second", [&] { SetTime(image, 1'000'000'000, 1); }},
      {"replaced", [&] { std::filesystem::rename(Make("new"), image); }},
      {"removed", [&] { std::filesystem::remove(image); }},
  };
  Make("loader");
  for (const auto& [name, change] : changes) {
    Make("image");
    const SourceFiles files(Properties("xmodem"));
    change();
    EXPECT_THAT(files.Changes(), ElementsAre(AllOf(HasSubstr("xmodemsource-image: the file '" + image + "'"),
                                                   HasSubstr("was changed or replaced during the update"))))
        << name;
  }
}

TEST_F(SourceFilesTest, AllChangedFilesAreNamed) {
  Make("image");
  Make("loader");
  const SourceFiles files(Properties("xmodem"));
  Make("image", "other");
  Make("loader", "other");
  EXPECT_THAT(files.Changes(),
              ElementsAre(HasSubstr("xmodemsource-image"), HasSubstr("xmodemsource-loader")));
}

TEST_F(SourceFilesTest, WhatNoListedPeripheralIsSentMayChange) {
  Make("image");
  Make("loader");
  const SourceFiles files(Properties("sanyoxmodem"));
  Make("loader", "other");
  EXPECT_THAT(files.Changes(), IsEmpty());
}

}  // namespace
