// Goal: who copies an example out of the documents has a program that works.
// Method: the examples are cut out of the documents, built like everything else and run here as processes,
// the host against a simulated device. What one of them does to disks is tried in the emulated machine only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Files.h"
#include "Process.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;

TEST(MaintenanceExample, TellsItsUsageAndTouchesNothing) {
  Process example(MAINTENANCE_EXAMPLE, {});
  EXPECT_EQ(example.WaitForEnd(), 2);
  EXPECT_THAT(example.Output(), HasSubstr("usage: "));
}

TEST(HostExample, UpdatesADevice) {
  TemporaryFolder folder;
  const std::string image(5000, 'i');
  const std::string image_path = folder.Write("firmware.bin", image);
  const std::string port = folder.Path("port");
  Process simulator(BOOTLOADER_SIMULATOR, {"--device", "sanyo", "--baud", "0", "--once", "--link", port,
                                           "--dump-flash", folder.Path("flash")});
  ASSERT_TRUE(simulator.WaitForOutput("port: ")) << simulator.Output();

  Process host(HOST_EXAMPLE, {MODULE_LIBRARY, "updatelist=sanyoxmodem", "xmodemsource-image=" + image_path,
                              "xmodemspeed=115200", "xmodemportname=" + port});
  EXPECT_EQ(host.WaitForEnd(), 0) << host.Output();
  EXPECT_THAT(host.Output(), AllOf(HasSubstr("The feature \"peripherals\" is there.\nIt is prepared.\n"),
                                   HasSubstr("\n100 %\n"), HasSubstr("It is installed.\n")));
  EXPECT_EQ(simulator.WaitForEnd(), 0) << simulator.Output();
  EXPECT_EQ(ContentOf(folder.Path("flash")).substr(0, image.size()), image);
}

TEST(HostExample, TellsThatThePreparationHasFailed) {
  Process host(HOST_EXAMPLE, {MODULE_LIBRARY, "updatelist=sanyoxmodem"});
  EXPECT_EQ(host.WaitForEnd(), 1);
  EXPECT_THAT(host.Output(), AllOf(HasSubstr("Not all required properties found!"),
                                   HasSubstr("It is NOT prepared; the log above says why.\n")));
}

TEST(HostExample, RefusesALibraryThatIsNoModule) {
  Process host(HOST_EXAMPLE, {PLATFORM_LIBRARY});
  EXPECT_EQ(host.WaitForEnd(), 2);
  EXPECT_THAT(host.Output(), HasSubstr("is no peripheral loader"));
}

}  // namespace
