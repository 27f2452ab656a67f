// Goal: people see which ports there are, what hangs on them, and what stands in their way, without a port
// being opened. Method: a machine's folders, made up in a folder of the test's own.
#include "Ports.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "Files.h"
#include "Groups.h"

namespace {

namespace fs = std::filesystem;

using host::FindPorts;
using host::ModemManagerRisk;
using host::Port;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kUsb = "sys/devices/usb1/1-2";

class Ports : public testing::Test {
 protected:
  Ports() {
    fs::permissions(iFolder.Path(""), fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    Write(std::string(kUsb) + "/idVendor", "0403\n");
    Write(std::string(kUsb) + "/idProduct", "6001\n");
    Write(std::string(kUsb) + "/manufacturer", "FTDI\n");
    Write(std::string(kUsb) + "/product", "FT232R USB UART\n");
    Write(std::string(kUsb) + "/serial", "A1\n");
    AddPort("ttyUSB0", std::string(kUsb) + "/1-2:1.0/ttyUSB0", "188:0");
  }

  void Write(const std::string& path, const std::string& content) const {
    fs::create_directories(fs::path(iFolder.Path(path)).parent_path());
    iFolder.Write(path, content);
  }

  void Link(const std::string& path, const std::string& target) const {
    fs::create_directories(fs::path(iFolder.Path(path)).parent_path());
    fs::create_symlink(target, iFolder.Path(path));
  }

  void AddPort(const std::string& name, const std::string& device, const std::string& number) const {
    fs::create_directories(iFolder.Path(device));
    Link("sys/class/tty/" + name + "/device", iFolder.Path(device));
    Write("sys/class/tty/" + name + "/dev", number + "\n");
    Write("dev/" + name, "");
  }

  void AddProcess(const std::string& pid, const std::string& name,
                  const std::string& file = "/dev/null") const {
    Write("proc/" + pid + "/comm", name + "\n");
    Link("proc/" + pid + "/fd/0", "/dev/null");
    Link("proc/" + pid + "/fd/3", file);
  }

  std::vector<Port> Find() const { return FindPorts(fs::path(iFolder.Path("")).parent_path().string()); }

  Port FindOne() const {
    const std::vector<Port> ports = Find();
    EXPECT_EQ(ports.size(), 1u);
    return ports.empty() ? Port() : ports.front();
  }

  TemporaryFolder iFolder;
};

TEST_F(Ports, AnAdapterIsNamedByWhatItSaysOfItself) {
  EXPECT_EQ(FindOne().device, "/dev/ttyUSB0");
  EXPECT_EQ(FindOne().adapter, "FTDI FT232R USB UART (0403:6001, serial number A1)");
  fs::remove(iFolder.Path(std::string(kUsb) + "/serial"));
  fs::remove(iFolder.Path(std::string(kUsb) + "/manufacturer"));
  EXPECT_EQ(FindOne().adapter, "FT232R USB UART (0403:6001)");
}

TEST_F(Ports, WhatIsOnNoBusIsNamedByItsDriverAndWhatIsNotThereIsLeftOut) {
  AddPort("ttyS0", "sys/devices/pnp0/00:04", "4:64");
  Link("sys/devices/pnp0/00:04/driver", "../../../bus/pnp/drivers/serial");
  AddPort("ttyS1", "sys/devices/platform/serial8250", "4:65");
  Write("sys/class/tty/ttyS1/type", "0\n");
  Write("sys/class/tty/tty0/dev", "4:0\n");
  const std::vector<Port> ports = Find();
  ASSERT_EQ(ports.size(), 2u);
  EXPECT_EQ(ports[0].device, "/dev/ttyS0");
  EXPECT_EQ(ports[0].adapter, "driver serial");
  fs::remove(iFolder.Path("sys/devices/pnp0/00:04/driver"));
  EXPECT_EQ(Find()[0].adapter, "not known: it is on no USB bus, and the kernel names no driver");
  EXPECT_EQ(ports[1].device, "/dev/ttyUSB0");
}

TEST_F(Ports, StableNamesAreTheLinksThatLeadThere) {
  Link("dev/serial/by-id/usb-FTDI-A1", "../../ttyUSB0");
  Link("dev/serial/by-id/usb-other", "../../ttyUSB1");
  Link("dev/serial/by-path/pci-1", "../../ttyUSB0");
  EXPECT_THAT(FindOne().stableNames,
              ElementsAre("/dev/serial/by-id/usb-FTDI-A1", "/dev/serial/by-path/pci-1"));
}

TEST_F(Ports, HoldersAreTheProcessesThatHaveItOpen) {
  AddProcess("12", "minicom", "/dev/ttyUSB0");
  AddProcess("13", "other");
  AddProcess("notapid", "x", "/dev/ttyUSB0");
  const Port port = FindOne();
  ASSERT_EQ(port.holders.size(), 1u);
  EXPECT_EQ(port.holders[0].pid, 12);
  EXPECT_EQ(port.holders[0].name, "minicom");
}

TEST_F(Ports, OthersWhoHoldAPortAreNeitherOneselfNorThePlayerOfItsDevice) {
  AddProcess("12", "cat", "/dev/pts/7");
  AddProcess("13", "simulator", "/dev/pts/7");
  Write("proc/13/fdinfo/5", "pos:\t0\ntty-index:\t7\n");
  AddProcess("14", "terminal", "/dev/pts/7");
  Write("proc/14/fdinfo/5", "pos:\t0\ntty-index:\t77\n");
  AddProcess(std::to_string(getpid()), "test", "/dev/pts/7");
  const std::string root = fs::path(iFolder.Path("")).parent_path().string();
  EXPECT_EQ(host::Describe(host::HoldersOf("/dev/pts/7", root), "nobody"),
            "cat (process 12), terminal (process 14)");
  EXPECT_EQ(host::Describe(host::HoldersOf("/dev/ttyUSB0", root), "nobody"), "nobody");
}

TEST_F(Ports, AccessIsWhatPermissionsSayToTheUser) {
  EXPECT_TRUE(FindOne().mayBeOpened);
  ASSERT_EQ(chmod(iFolder.Path("dev/ttyUSB0").c_str(), 0), 0);
  const bool root = geteuid() == 0;
  ASSERT_EQ(root ? seteuid(65534) : 0, 0);
  const std::vector<Port> ports = Find();
  ASSERT_EQ(root ? seteuid(0) : 0, 0);
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_FALSE(ports[0].mayBeOpened);
  EXPECT_THAT(ports[0].howToGainAccess, HasSubstr("another port"));
}

TEST_F(Ports, OnlyAGroupThatHelpsIsRecommended) {
  const auto advice = [](gid_t group, mode_t mode) {
    struct stat device = {};
    device.st_gid = group;
    device.st_mode = mode;
    return host::HowToGainAccess(device);
  };
  EXPECT_EQ(advice(54321, 0660), "have your user added to the group 54321 and log in again");
  for (const std::string& other : {advice(0, 0660), advice(54321, 0620), advice(54321, 0600)}) {
    EXPECT_EQ(other,
              "use another port, or have a udev rule give it to a group of yours (GROUP=\"dialout\", "
              "MODE=\"0660\"): it is open to no group that users belong to");
  }
}

TEST_F(Ports, AModemManagerIsARiskUnlessARuleKeepsItAway) {
  AddPort("ttyS0", "sys/devices/pnp0/00:04", "4:64");
  EXPECT_EQ(Find()[1].modemManager, ModemManagerRisk::NotRunning);
  AddProcess("99", "ModemManager");
  EXPECT_EQ(Find()[0].modemManager, ModemManagerRisk::Unlikely);
  EXPECT_EQ(Find()[1].modemManager, ModemManagerRisk::Likely);
  Write("run/udev/data/c188:0", "E:ID_BUS=usb\n");
  EXPECT_EQ(Find()[1].modemManager, ModemManagerRisk::Likely);
  Write("run/udev/data/c188:0", "E:ID_BUS=usb\nE:ID_MM_PORT_IGNORE=1\n");
  EXPECT_EQ(Find()[1].modemManager, ModemManagerRisk::KeptAway);
}

TEST_F(Ports, TheAdviceFitsWhatTheInstalledRuleNames) {
  AddProcess("99", "ModemManager");
  EXPECT_EQ(FindOne().howToKeepAway, "install the udev rule 78-peripheral-loader.rules");
  fs::create_directories(iFolder.Path("usr/lib/udev/rules.d"));
  fs::copy_file(UDEV_RULES, iFolder.Path("usr/lib/udev/rules.d/78-peripheral-loader.rules"));
  const std::string again = "run \"udevadm control --reload\" and plug it in again";
  EXPECT_EQ(FindOne().howToKeepAway, "the udev rule 78-peripheral-loader.rules names it; " + again);
  for (const std::string vendor : {"1209", "2341", "0403"}) {
    Write(std::string(kUsb) + "/idVendor", vendor + "\n");
    Write(std::string(kUsb) + "/idProduct", "0001\n");
    EXPECT_EQ(FindOne().howToKeepAway,
              "the udev rule 78-peripheral-loader.rules " +
                  (vendor == "2341" ? "names it; "
                                    : "does not name " + vendor +
                                          ":0001; write SUBSYSTEM==\"tty\", ATTRS{idVendor}==\"" + vendor +
                                          "\", ATTRS{idProduct}==\"0001\", ENV{ID_MM_PORT_IGNORE}=\"1\" into "
                                          "/etc/udev/rules.d/78-own-adapters.rules, ") +
                  again);
  }
  Write("run/udev/data/c188:0", "E:ID_MM_PORT_IGNORE=1\n");
  EXPECT_EQ(FindOne().howToKeepAway, "");
}

TEST_F(Ports, TheShippedRuleSetsWhatIsLookedFor) {
  std::ifstream rules(UDEV_RULES);
  int exempted = 0;
  for (std::string line; std::getline(rules, line);) {
    const bool names = line.rfind("ATTRS{idVendor}==\"", 0) == 0;
    exempted += names ? 1 : 0;
    EXPECT_TRUE(!names || line.find(", ENV{ID_MM_PORT_IGNORE}=\"1\"") != std::string::npos) << line;
  }
  EXPECT_EQ(exempted, 9);
}

TEST_F(Ports, PeopleGetThemOneBelowTheOther) {
  EXPECT_EQ(host::DescribePorts({}), "There is no serial port. Is the adapter plugged in?\n");
  EXPECT_EQ(host::DescribePorts(
                {{"/dev/ttyUSB0",
                  {"/dev/serial/by-id/a"},
                  "an adapter",
                  {{12, "minicom"}, {13, "cat"}},
                  false,
                  "dialout",
                  ModemManagerRisk::KeptAway,
                  "do something"},
                 {"/dev/ttyUSB1", {}, "another", {}, true, "root", ModemManagerRisk::Likely, "", "beware"}}),
            "/dev/ttyUSB0\n"
            "  stable name    /dev/serial/by-id/a\n"
            "  adapter        an adapter\n"
            "  held by        minicom (process 12), cat (process 13)\n"
            "  access         no: do something\n"
            "  modem manager  kept away by a udev rule\n"
            "/dev/ttyUSB1\n"
            "  adapter        another\n"
            "  held by        nobody that you may see\n"
            "  access         yes\n"
            "  modem manager  runs and may talk to the device: beware\n");
  EXPECT_THAT(host::DescribePorts({{"/dev/x", {}, "", {}, true, "", ModemManagerRisk::NotRunning}}),
              HasSubstr("does not run"));
  EXPECT_THAT(host::DescribePorts({{"/dev/x", {}, "", {}, true, "", ModemManagerRisk::Unlikely}}),
              HasSubstr("hardly looks"));
}

TEST_F(Ports, AMachineWithoutAnyHasNone) {
  const TemporaryFolder empty;
  EXPECT_THAT(FindPorts(empty.Path("")), IsEmpty());
}

}  // namespace
