// Goal: every property can come from the file or from the command line, and every mistake is named with its
// place and its cure.
// Method: texts parsed as if they stood in /etc/swl/can.toml; tables of mistakes with the message they earn.
#include "Configuration.h"

#include <gmock/gmock.h>

#include "Files.h"
#include "Texts.h"

namespace {

using host::ApplySetting;
using host::Configuration;
using host::Faults;
using host::ParseConfiguration;
using host::PropertyMap;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kPath = "/etc/swl/can.toml";

Configuration ParseGood(const std::string& text) {
  Faults faults;
  const Configuration configuration = ParseConfiguration(text, kPath, faults);
  EXPECT_THAT(Texts(faults), IsEmpty());
  return configuration;
}

TEST(Configuration, HoldsEveryPropertyAndTheModule) {
  const Configuration configuration = ParseGood(R"(
    library = "libX.so"
    feature-id = "can"
    [properties]
    updatelist = "xmodem"
    xmodemsource-image = "/a/image"
    xmodemsource-loader = "/a/loader"
    xmodemspeed = "9600"
    xmodemportname = "/dev/ttyS0"
    xmodemramaddress = "1000"
    xmodemflashaddress = "0x2000"
  )");
  const Configuration expected{"libX.so",
                               "can",
                               {{"updatelist", "xmodem"},
                                {"xmodemsource-image", "/a/image"},
                                {"xmodemsource-loader", "/a/loader"},
                                {"xmodemspeed", "9600"},
                                {"xmodemportname", "/dev/ttyS0"},
                                {"xmodemramaddress", "1000"},
                                {"xmodemflashaddress", "0x2000"}},
                               {}};
  EXPECT_EQ(configuration, expected);
}

TEST(Configuration, TheModuleMayBeNamedInItsOwnTable) {
  const Configuration configuration = ParseGood("[module]\nlibrary = \"libX.so\"\nfeature-id = \"can\"\n");
  EXPECT_EQ(configuration.library, "libX.so");
  EXPECT_EQ(configuration.featureId, "can");
}

TEST(Configuration, WhatIsNotNamedIsNotThere) {
  EXPECT_EQ(ParseGood(""), Configuration());
}

TEST(Configuration, AListOfPeripheralsIsJoinedWithSemicolons) {
  EXPECT_EQ(ParseGood("[properties]\nupdatelist = [\"xmodem\", \"sanyoxmodem\"]\n").properties["updatelist"],
            "xmodem;sanyoxmodem");
}

TEST(Configuration, ASpeedMayBeANumber) {
  EXPECT_EQ(ParseGood("[properties]\nxmodemspeed = 115200\n").properties["xmodemspeed"], "115200");
}

TEST(Configuration, RelativePathsStartAtTheFilesFolder) {
  Configuration configuration = ParseGood(
      "library = \"lib/x.so\"\n[properties]\nxmodemsource-image = \"image\"\nxmodemsource-loader = "
      "\"../loader\"\nxmodemportname = \"port\"\n");
  EXPECT_EQ(configuration.library, "/etc/swl/lib/x.so");
  EXPECT_EQ(configuration.properties["xmodemsource-image"], "/etc/swl/image");
  EXPECT_EQ(configuration.properties["xmodemsource-loader"], "/etc/swl/../loader");
  EXPECT_EQ(configuration.properties["xmodemportname"], "port");
}

TEST(Configuration, ADigestMayHaveLettersOfBothCases) {
  const std::string digits(32, 'a');
  const std::string capitals(32, 'F');
  EXPECT_EQ(ParseGood("[sha256]\nxmodemsource-image = \"" + digits + capitals + "\"\n").digests,
            (host::DigestMap{{"xmodemsource-image", digits + std::string(32, 'f')}}));
}

TEST(Configuration, AnEmptyPathStaysEmpty) {
  EXPECT_EQ(ParseGood("[properties]\nxmodemsource-image = \"\"\n").properties["xmodemsource-image"], "");
}

struct Mistake {
  const char* text;
  const char* place;
  const char* message;
};

class ConfigurationMistake : public testing::TestWithParam<Mistake> {};

TEST_P(ConfigurationMistake, IsNamedWithItsPlaceAndItsCure) {
  Faults faults;
  ParseConfiguration(GetParam().text, kPath, faults);
  EXPECT_THAT(Texts(faults), ElementsAre(AllOf(StartsWith(std::string(kPath) + GetParam().place),
                                               HasSubstr(GetParam().message))));
}

const Mistake kMistakes[] = {
    {"[sha256]\nxmodemsource-image = \"abc\"\n",
     ":2:22: ", "'xmodemsource-image' must be the 64 hexadecimal digits that sha256sum prints."},
    {"[sha256]\nxmodemsource-image = \"zz34567890123456789012345678901234567890123456789012345678901234\"\n",
     ":2:22: ", "must be the 64 hexadecimal digits"},
    {"[sha256]\nxmodemsource-image = 1\n", ":2:22: ", "must be text in quotes"},
    {"[sha256]\nxmodemspeed = \"\"\n",
     ":2:15: ", "unknown key 'xmodemspeed'. Known here: xmodemsource-image, xmodemsource-loader."},
    {"a = ", ":1:", "not valid TOML"},
    {"[%x]", ":1:2: ", "not valid TOML"},
    {"[a]\n[[%]]", ":2:3: ", "not valid TOML"},
    {"[properties]\nxmodemsped = 1", ":2:14: ", "unknown key 'xmodemsped'; did you mean 'xmodemspeed'?"},
    {"libary = \"x\"", ":1:10: ", "unknown key 'libary'; did you mean 'library'?"},
    {"[propertys]", ":1:1: ", "unknown key 'propertys'; did you mean 'properties'?"},
    {"[module]\nfeatureid = \"x\"", ":2:13: ", "unknown key 'featureid'; did you mean 'feature-id'?"},
    {"xmodemspeed = 1", ":1:15: ", "'xmodemspeed' belongs under [properties]."},
    {"properties = 1", ":1:14: ", "'properties' must be a table: write [properties] on a line of its own."},
    {"module = 1", ":1:10: ", "'module' must be a table: write [module] on a line of its own."},
    {"library = 1", ":1:11: ", "'library' must be text in quotes"},
    {"library = \"\"", ":1:11: ", "'library' is empty; leave it out for the default."},
    {"feature-id = \"\"", ":1:14: ", "'feature-id' is empty"},
    {"feature-id = \"a\"\n[module]\nfeature-id = \"b\"", ":", "'feature-id' is given twice"},
    {"[properties]\nupdatelist = 1", ":2:14: ", "'updatelist' must be text in quotes"},
    {"[properties]\nupdatelist = [\"xmodem\", 1]",
     ":2:25: ", "'updatelist' must hold texts in quotes, such as updatelist = [\"xmodem\"]."},
    {"[properties]\nxmodemspeed = 1.5", ":2:15: ", "'xmodemspeed' must be text in quotes"},
    {"[properties]\nxmodemsource-image = 1", ":2:22: ", "'xmodemsource-image' must be text in quotes"},
    {"[properties]\nxmodemsource-loader = true", ":2:23: ", "'xmodemsource-loader' must be text in quotes"},
    {"[properties]\nxmodemportname = []", ":2:18: ", "'xmodemportname' must be text in quotes"},
    {"[properties]\nxmodemramaddress = 0x1000", ":2:20: ",
     "'xmodemramaddress' must be text in quotes, such as xmodemramaddress = \"...\": the device gets the "
     "address "
     "as it is written, but TOML turns a bare 0x1000 into 4096."},
    {"[properties]\nxmodemflashaddress = 4096", ":2:22: ", "TOML turns a bare 0x1000 into 4096."},
    {"[properties]\nxmodemflashaddress = false", ":2:22: ", "'xmodemflashaddress' must be text in quotes"},
};

INSTANTIATE_TEST_SUITE_P(Each, ConfigurationMistake, testing::ValuesIn(kMistakes));

TEST(Configuration, AllMistakesAreNamedAtOnceAndTheRestIsRead) {
  Faults faults;
  Configuration configuration =
      ParseConfiguration("[properties]\na = 1\nxmodemspeed = 75\nb = 2\n", kPath, faults);
  EXPECT_THAT(Texts(faults),
              ElementsAre(HasSubstr(":2:5: unknown key 'a'"), HasSubstr(":4:5: unknown key 'b'")));
  EXPECT_EQ(configuration.properties, PropertyMap({{"xmodemspeed", "75"}}));
}

TEST(Configuration, IsReadFromAFile) {
  const TemporaryFolder folder;
  Faults faults;
  Configuration configuration =
      host::ReadConfiguration(folder.Write("c.toml", "[properties]\nxmodemsource-image = \"i\"\n"), faults);
  EXPECT_THAT(Texts(faults), IsEmpty());
  EXPECT_EQ(configuration.properties["xmodemsource-image"], folder.Path("i"));
}

TEST(Configuration, AMissingFileIsNamed) {
  Faults faults;
  host::ReadConfiguration("/nowhere/c.toml", faults);
  EXPECT_THAT(Texts(faults),
              ElementsAre("/nowhere/c.toml: cannot read the configuration file: No such file or "
                          "directory. Check the name after --config."));
}

TEST(Configuration, AFileWithoutAnEndIsRefused) {
  Faults faults;
  host::ReadConfiguration("/dev/zero", faults);
  EXPECT_THAT(Texts(faults),
              ElementsAre("/dev/zero: more than 1024 KiB are no configuration. Check the name after "
                          "--config."));
}

TEST(Configuration, OneMebibyteIsReadAndAByteMoreIsRefused) {
  const TemporaryFolder folder;
  const std::string comment = "#" + std::string(1024 * 1024 - 1, ' ');
  Faults faults;
  host::ReadConfiguration(folder.Write("largest.toml", comment), faults);
  EXPECT_THAT(Texts(faults), IsEmpty());
  host::ReadConfiguration(folder.Write("larger.toml", comment + " "), faults);
  EXPECT_THAT(Texts(faults), ElementsAre(HasSubstr("larger.toml: more than 1024 KiB")));
}

// Opens well, but holds nothing at its beginning that could be read.
TEST(Configuration, AFileThatCannotBeReadIsNotTakenForAnEmptyOne) {
  Faults faults;
  host::ReadConfiguration("/proc/self/mem", faults);
  EXPECT_THAT(Texts(faults),
              ElementsAre("/proc/self/mem: cannot read the configuration file: Input/output error. "
                          "Check the name after --config."));
}

TEST(Configuration, AFolderIsNoConfigurationFile) {
  Faults faults;
  host::ReadConfiguration("/tmp", faults);
  EXPECT_THAT(Texts(faults), ElementsAre("/tmp: this is a folder; name the configuration file in it."));
}

TEST(Setting, OverridesTheFileAndKeepsItsPathAsItIs) {
  Faults faults;
  Configuration configuration = ParseGood("[properties]\nxmodemsource-image = \"image\"\n");
  ApplySetting("xmodemsource-image=other", configuration, faults);
  ApplySetting("xmodemportname=/dev/a=b", configuration, faults);
  ApplySetting("xmodemspeed=", configuration, faults);
  EXPECT_THAT(Texts(faults), IsEmpty());
  EXPECT_EQ(configuration.properties["xmodemsource-image"], "other");
  EXPECT_EQ(configuration.properties["xmodemportname"], "/dev/a=b");
  EXPECT_EQ(configuration.properties["xmodemspeed"], "");
}

TEST(Setting, MistakesAreNamed) {
  Faults faults;
  Configuration configuration;
  ApplySetting("xmodemspeed", configuration, faults);
  ApplySetting("=1", configuration, faults);
  ApplySetting("foo=1", configuration, faults);
  ApplySetting("xmodemport=1", configuration, faults);
  EXPECT_THAT(
      Texts(faults),
      ElementsAre("--set xmodemspeed: the '=' is missing; write --set key=value.",
                  HasSubstr("--set =1: unknown key ''. Known"),
                  HasSubstr("--set foo=1: unknown key 'foo'. Known here: updatelist, "),
                  HasSubstr("--set xmodemport=1: unknown key 'xmodemport'; did you mean 'xmodemportname'?")));
  EXPECT_TRUE(configuration.properties.empty());
}

}  // namespace
