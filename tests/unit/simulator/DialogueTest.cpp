// Goal: both devices lead their dialogues to the right end, alone and in lists, with every fault they can be
// given. Method: a scripted host on a line in virtual time, without sleeping; memories, answers, milestones
// and moments are compared.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "ScriptedHost.h"
#include "SimulatedDevices.h"

namespace simulator {

namespace {

using testing::Contains;
using testing::ElementsAre;

/// A list of devices, the line they hang on and a host at its other end.
class Bench {
 public:
  explicit Bench(const std::string& kinds, Options options = {}, const LineOptions& line_options = {},
                 bool once = false)
      : devices(MakeDevices(kinds, Watched(options, milestones), once)),
        line(*devices, line_options, 0),
        host(line) {}

  const Memory& Flash(std::size_t index = 0) const { return devices->At(index).Flash(); }
  const Memory& Ram(std::size_t index = 0) const { return devices->At(index).Ram(); }

  std::vector<std::string> milestones;
  std::unique_ptr<DeviceList> devices;
  Line line;
  ScriptedHost host;

 private:
  static Options Watched(Options options, std::vector<std::string>& milestones) {
    options.on_milestone = [&milestones](const Milestone& each) {
      milestones.push_back(each.device + ": " + each.text);
    };
    return options;
  }
};

Options With(const Faults& faults) {
  Options options;
  options.faults = faults;
  return options;
}

Options Refusing(const std::string& text) {
  Faults faults;
  faults.refusals.emplace_back();
  EXPECT_TRUE(ParseRefusal(text, faults.refusals.back()));
  return With(faults);
}

Options SilentAfter(const std::string& text) {
  Faults faults;
  EXPECT_TRUE(ParseSilence(text, faults.silent_after));
  return With(faults);
}

const Bytes kLoader = Pattern(3000);
const Bytes kImage = Pattern(20000);

}  // namespace

TEST(Can, IsUpdatedAndTellsItsMilestones) {
  Bench bench("can");
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
  EXPECT_EQ(bench.Ram().Contents(), PaddedToBlocks(kLoader));
  EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(kImage));
  EXPECT_EQ(bench.Flash().Read(0x8000, 20), Bytes(kImage.begin(), kImage.begin() + 20));
  EXPECT_THAT(bench.milestones, ElementsAre("can: version sent", "can: wr 1000: 3072 bytes", "can: gt 1000",
                                            "can: wr 8000: 20480 bytes", "can: ck 8000: ok", "can: updated"));
}

TEST(Can, SaysNothingUntilTheHostAsksForTheVersion) {
  Bench bench("can");
  EXPECT_EQ(bench.line.NextEvent(0), kNever);
  EXPECT_EQ(bench.host.Read(3600 * kSecond), ScriptedHost::kNothing);
  EXPECT_EQ(bench.host.ReceiveText(), "Bootloader 1.0");
}

TEST(Can, DoesNotMindACancelBeforeTheVersionWasAskedFor) {
  Bench bench("can");
  bench.host.Write(Filled(6, 0x18));
  bench.host.Write({'C'});
  EXPECT_EQ(bench.host.Read(10 * kMillisecond), 0x01);
}

TEST(Can, VersionTransferTakesItsExactTimeOnTheLine) {
  Bench bench("can");
  bench.host.Write({'C'});
  EXPECT_EQ(bench.host.Read(kSecond), 0x01);
  // 'C' arrives after 86.8 us, rounded up; the block begins then.
  EXPECT_EQ(bench.host.Now(), 87 + 87);
  for (int byte = 1; byte < 133; ++byte) {
    bench.host.Read(kSecond);
  }
  EXPECT_EQ(bench.host.Now(), 87 + 11546);  // 133 bytes of 10 bits at 115200 bits/s are 11545.1 us.
}

TEST(Can, AnnouncesTheGivenVersionText) {
  for (const std::string& text : {std::string(), std::string("v"), std::string(700, 'x')}) {
    Options options;
    options.version_text = text;
    Bench bench("can", options);
    EXPECT_EQ(bench.host.ReceiveText(), text);
  }
}

TEST(Can, RefusesWhatItCannotDoAndGoesOn) {
  Bench bench("can");
  bench.host.ReceiveText();
  for (const std::string command : {"xx 1000", "w", "wr", "wr1000", "gt", "hello world", "gt 1000", "gt",
                                    "gt ", "gt 10x0", "gt 123456789", "gt -1", "ck 8000", "ck ", "ck 1000"}) {
    EXPECT_EQ(bench.host.Command(command), "001") << command;
    // A verdict on an image ends the dialogue; the device announces itself again.
    if (command.substr(0, 3) == "ck ") {
      EXPECT_EQ(bench.host.ReceiveText(), "Bootloader 1.0");
    }
  }
  EXPECT_EQ(bench.host.CommandWithFile("wr ", kLoader), "001");
  EXPECT_EQ(bench.host.CommandWithFile("wr zz", kLoader), "001");
  EXPECT_EQ(bench.host.CommandWithFile("wr 0FFF", kLoader), "001");
  EXPECT_EQ(bench.host.CommandWithFile("wr 2008000", kLoader), "001");
  EXPECT_EQ(bench.Ram().Contents(), Bytes{});
  EXPECT_EQ(bench.Flash().Contents(), Bytes{});
  EXPECT_EQ(bench.host.CommandWithFile("wr 1000", kLoader), "000");
  EXPECT_EQ(bench.host.Command("gt 1000"), "000");
}

TEST(Can, ReadsAddressesAsHexadecimalInAnyForm) {
  Bench bench("can");
  bench.host.ReceiveText();
  EXPECT_EQ(bench.host.CommandWithFile("wr 0x001Abc", kLoader), "000");
  EXPECT_EQ(bench.host.Command("gt 1aBC"), "000");
  EXPECT_EQ(bench.Ram().Read(0x1ABC, 3000), kLoader);
}

TEST(Can, ObeysInAnyOrder) {
  Bench bench("can");
  bench.host.ReceiveText();
  EXPECT_EQ(bench.host.CommandWithFile("wr 9000", kImage), "000");
  EXPECT_EQ(bench.host.CommandWithFile("wr 1000", kLoader), "000");
  EXPECT_EQ(bench.host.Command("gt 1400"), "000");
  EXPECT_EQ(bench.host.Command("ck 9000"), "000");
  EXPECT_EQ(bench.devices->Updates(), 1u);
}

TEST(Can, RefusesAFileThatDoesNotFit) {
  Options options;
  options.ram_size = 2048;
  Bench bench("can", options);
  bench.host.ReceiveText();
  EXPECT_EQ(bench.host.CommandWithFile("wr 1000", Pattern(2049)), "001");
  EXPECT_EQ(bench.host.Command("gt 1000"), "001");
  EXPECT_EQ(bench.host.CommandWithFile("wr 1000", Pattern(2048)), "000");
}

TEST(Can, AcceptsAnEmptyFileButNeverStartsOrChecksIt) {
  Bench bench("can");
  bench.host.ReceiveText();
  EXPECT_EQ(bench.host.CommandWithFile("wr 1000", {}), "000");
  EXPECT_EQ(bench.host.Command("gt 1000"), "001");
  EXPECT_EQ(bench.host.CommandWithFile("wr 8000", kImage), "000");
  EXPECT_EQ(bench.host.CommandWithFile("wr 8000", {}), "000");
  EXPECT_EQ(bench.host.Command("ck 8000"), "001");
}

TEST(Can, IsUpdatedTwiceInARowAndTheSecondTimeShorter) {
  Bench bench("can");
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
  bench.host.Wait(kSecond);
  bench.host.Open();
  EXPECT_EQ(bench.host.UpdateCan(kLoader, Pattern(100)), "000");
  EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(Pattern(100)));
  EXPECT_EQ(bench.devices->Updates(), 2u);
}

TEST(Can, StartsOverTenSecondsAfterTheHostWentAway) {
  Bench bench("can");
  bench.host.ReceiveText();
  EXPECT_EQ(bench.host.ReadAll(5 * kSecond), FromText("CCCCCCCCCC"));
  EXPECT_THAT(bench.milestones, ElementsAre("can: version sent", "can: failed: the host fell silent"));
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
}

// At each point at which it waits for its host: for a block, for the start of an answer, for its reply.
TEST(Can, StartsOverWhenItsPatienceWithASilentHostIsAtItsEnd) {
  const Bytes none;
  for (const int patience_s : {2, 30}) {
    for (const Bytes& last : {FrameBlock(1, Pattern(1024), Trailer::kCrc), none, Bytes{'C'}}) {
      Options options;
      options.patience_s = patience_s;
      Bench bench("can", options);
      bench.host.ReceiveText();
      EXPECT_TRUE(bench.host.Send("wr 1000"));
      EXPECT_EQ(bench.host.Read(kSecond), 'C');
      if (last.size() <= 1) {
        EXPECT_TRUE(bench.host.Send(kLoader));
      }
      bench.host.Write(last);
      bench.host.Wait((patience_s - 1) * kSecond);
      EXPECT_EQ(bench.devices->Failures(), 0u) << patience_s << " s, " << last.size() << " bytes";
      bench.host.Wait(2 * kSecond);
      EXPECT_EQ(bench.devices->Failures(), 1u) << patience_s << " s, " << last.size() << " bytes";
    }
  }
}

TEST(Can, StartsOverWhenTheHostBeginsAnewInMidTransfer) {
  Bench bench("can");
  bench.host.ReceiveText();
  bench.host.Send("wr 1000");
  bench.host.Read(kSecond);
  bench.host.Write(FrameBlock(1, Pattern(1024), Trailer::kCrc));
  Bytes half = FrameBlock(2, Pattern(1024), Trailer::kCrc);
  half.resize(500);
  bench.host.Write(half);
  bench.host.Wait(300 * kMillisecond);
  bench.host.Open();
  const Micros begun = bench.host.Now();
  EXPECT_EQ(bench.host.ReceiveText(), "Bootloader 1.0");
  // A second for the broken block, the quiet and the restart: the host need not ask again.
  EXPECT_LT(bench.host.Now() - begun, 2 * kSecond);
  EXPECT_THAT(bench.milestones, Contains("can: failed: the host began anew"));
  EXPECT_EQ(bench.host.CommandWithFile("wr 1000", kLoader), "000");
}

TEST(Can, StartsOverAfterTheHostHasCancelled) {
  Bench bench("can");
  bench.host.ReceiveText();
  bench.host.Read(kSecond);
  bench.host.Write(Filled(6, 0x18));
  bench.host.Wait(kSecond);
  EXPECT_EQ(bench.milestones.back(), "can: failed: the host cancelled");
  bench.host.Open();
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
}

TEST(Can, RepeatsTheLostAckOfACommandsEnd) {
  Bench bench("can");
  bench.host.ReceiveText();
  bench.host.Send("wr 1000");
  bench.host.Open();
  bench.host.Write({kEot});
  EXPECT_THAT(bench.host.ReadAll(500 * kMillisecond), Contains(0x06));
  EXPECT_TRUE(bench.host.Send(kLoader));
  bench.host.Write({kEot});
  EXPECT_THAT(bench.host.ReadAll(500 * kMillisecond), ElementsAre(0x06));
  EXPECT_EQ(bench.host.ReceiveText(), "000");
}

TEST(CanFaults, RefusesEachCommandOnceAsOrdered) {
  struct Case {
    std::string order, answer;
    std::string last_command;
  };
  for (const Case& each : {Case{"wr", "001", "wr 1000"}, Case{"wr:2=E2", "E2", "wr 8000"},
                           Case{"gt=0000", "0000", "gt 1000"}, Case{"ck", "001", "ck 8000"}}) {
    Bench bench("can", Refusing(each.order));
    EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), each.answer) << each.order;
    EXPECT_THAT(bench.milestones,
                Contains("can: " + each.last_command + ": refused with " + each.answer + " on purpose"));
    bench.host.Open();
    EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000") << each.order;
  }
}

TEST(CanFaults, RefusesAlwaysIfOrdered) {
  Bench bench("can", Refusing("gt:0"));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "001");
    bench.host.Open();
  }
}

TEST(CanFaults, DiesAtEachStageUntilPowerIsCycled) {
  struct Case {
    std::string stage, last_milestone;
  };
  for (const Case& each : {Case{"version", "can: version sent"}, Case{"wr-ram", "can: version sent"},
                           Case{"gt", "can: wr 1000: 3072 bytes"}, Case{"wr-flash", "can: gt 1000"},
                           Case{"ck", "can: wr 8000: 20480 bytes"}, Case{"3000", "can: version sent"}}) {
    Bench bench("can", SilentAfter(each.stage));
    EXPECT_THAT(bench.host.UpdateCan(kLoader, kImage), testing::AnyOf("(none)", "(not sent)")) << each.stage;
    ASSERT_GE(bench.milestones.size(), 2u) << each.stage;
    EXPECT_EQ(bench.milestones.back(), "can: silent from here") << each.stage;
    EXPECT_EQ(bench.milestones[bench.milestones.size() - 2], each.last_milestone) << each.stage;
    bench.host.Open();
    EXPECT_EQ(bench.host.ReceiveText(), "(none)") << each.stage;
    bench.line.PowerCycle(bench.host.Now());
    EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000") << each.stage;
  }
}

TEST(CanFaults, ThinksBeforeEachAnswer) {
  Faults faults;
  faults.slow_ms = 7000;
  Bench bench("can", With(faults));
  bench.host.ReceiveText();
  bench.host.Send("gt 1000");
  const Micros asked = bench.host.Now();
  EXPECT_EQ(bench.host.ReceiveText(), "001");
  // The host's asking at 0 and 5 s is remembered; block, ACK, EOT and ACK take 12 ms.
  EXPECT_NEAR(static_cast<double>(bench.host.Now() - asked), 7012000.0, 1000.0);
}

TEST(CanFaults, AsksForChecksums) {
  Faults faults;
  faults.checksum = true;
  Bench bench("can", With(faults));
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
  EXPECT_EQ(bench.host.StartCharacter(), kNak);
  EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(kImage));
}

TEST(CanFaults, RejectsBlocksAndEots) {
  Faults faults;
  faults.nak_every = 4;
  faults.nak_first_eot = true;
  Bench bench("can", With(faults));
  bench.host.ReceiveText();
  EXPECT_TRUE(bench.host.Send("wr 8000"));
  EXPECT_EQ(bench.host.Naks(), 1);
  EXPECT_TRUE(bench.host.Send(kImage));
  EXPECT_EQ(bench.host.Naks(), 6 + 1);  // 20 blocks and 6 repetitions are 26, six times four and two.
  EXPECT_EQ(bench.host.ReceiveText(), "000");
  EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(kImage));
}

TEST(CanFaults, DamagesWhatItSendsEachTimeUntilTheHostGivesUp) {
  Faults faults;
  faults.damage_every = 1;
  Bench bench("can", With(faults));
  EXPECT_EQ(bench.host.ReceiveText(), "(none)");
  EXPECT_THAT(bench.milestones, ElementsAre("can: failed: too many errors on the line"));
}

TEST(CanFaults, CancelsOnceAfterTheGivenBytes) {
  Faults faults;
  faults.cancel_after_bytes = 3000;
  Bench bench("can", With(faults));
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "(not sent)");
  EXPECT_THAT(bench.milestones, ElementsAre("can: version sent", "can: failed: cancelled on purpose"));
  bench.host.Open();
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
}

TEST(CanFaults, CorruptsTheFirstImageOnlySoThatTheCheckRefuses) {
  Faults faults;
  faults.corrupt_flash = true;
  Bench bench("can", With(faults));
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "001");
  EXPECT_EQ(bench.Flash().Read(0x8000, 1), Bytes{static_cast<std::uint8_t>(kImage[0] ^ 1)});
  EXPECT_EQ(bench.milestones.back(), "can: failed: the check was refused");
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
}

TEST(Sanyo, SolicitsForEverAndTakesOneFile) {
  Bench bench("sanyo");
  bench.host.Wait(600 * kSecond);
  bench.host.Open();
  EXPECT_TRUE(bench.host.Send(kImage));
  EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(kImage));
  EXPECT_EQ(bench.Flash().Read(0x8000, 1), Bytes{kImage[0]});
  EXPECT_THAT(bench.milestones, ElementsAre("sanyo: image: 20480 bytes", "sanyo: updated"));
}

TEST(Sanyo, TakesTheNextFileAtOnce) {
  Bench bench("sanyo");
  EXPECT_TRUE(bench.host.Send(kImage));
  EXPECT_TRUE(bench.host.Send(kLoader));
  EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(kLoader));
}

TEST(Sanyo, EmptyFileIsAcknowledgedAndIsNoUpdate) {
  Bench bench("sanyo");
  EXPECT_TRUE(bench.host.Send(Bytes{}));
  EXPECT_EQ(bench.devices->Updates(), 0u);
  EXPECT_TRUE(bench.host.Send(kImage));
  EXPECT_EQ(bench.devices->Updates(), 1u);
}

TEST(Sanyo, CancelsAFileThatDoesNotFit) {
  Options options;
  options.flash_size = 4096;
  Bench bench("sanyo", options);
  EXPECT_FALSE(bench.host.Send(kImage));
  EXPECT_THAT(bench.milestones, ElementsAre("sanyo: failed: the file does not fit"));
  bench.host.Open();
  EXPECT_TRUE(bench.host.Send(kLoader));
}

TEST(Sanyo, TakesAnewFileAtOnceAfterTheHostBrokeOff) {
  Bench bench("sanyo");
  bench.host.Read(kSecond);
  for (std::uint8_t number = 1; number < 5; ++number) {
    bench.host.Write(FrameBlock(number, Pattern(1024), Trailer::kCrc));
    EXPECT_EQ(bench.host.Read(kSecond), kAck);
  }
  bench.host.Open();
  EXPECT_TRUE(bench.host.Send(kLoader));
  EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(kLoader));
}

TEST(Sanyo, StartsOverHalfAMinuteAfterTheHostWentAway) {
  Bench bench("sanyo");
  bench.host.Read(kSecond);
  bench.host.Write(FrameBlock(1, Pattern(1024), Trailer::kCrc));
  bench.host.Wait(29 * kSecond);
  EXPECT_TRUE(bench.milestones.empty());
  bench.host.Wait(2 * kSecond);
  EXPECT_THAT(bench.milestones, ElementsAre("sanyo: failed: the host fell silent"));
  bench.host.Open();
  EXPECT_TRUE(bench.host.Send(kImage));
}

TEST(Sanyo, ComesUpAgainAfterACancelAndDoesNotHearTheRestOfIt) {
  Bench bench("sanyo");
  bench.host.Read(kSecond);
  bench.host.Write(FrameBlock(1, Pattern(1024), Trailer::kCrc));
  EXPECT_EQ(bench.host.Read(kSecond), kAck);
  bench.host.Write(Filled(6, 0x18));
  EXPECT_EQ(bench.host.Read(199 * kMillisecond), ScriptedHost::kNothing);
  EXPECT_EQ(bench.host.Read(2 * kMillisecond), 'C');
  EXPECT_THAT(bench.milestones, ElementsAre("sanyo: failed: the host cancelled"));
}

TEST(SanyoFaults, DiesAfterTheGivenBytes) {
  Bench bench("sanyo", SilentAfter("2000"));
  EXPECT_FALSE(bench.host.Send(kImage));
  EXPECT_EQ(bench.host.Read(600 * kSecond), ScriptedHost::kNothing);
  EXPECT_THAT(bench.milestones, ElementsAre("sanyo: silent from here"));
}

TEST(Silence, FromTheStartIsADeviceThatIsSwitchedOff) {
  for (const std::string kind : {"can", "sanyo"}) {
    Bench bench(kind, SilentAfter("start"));
    EXPECT_EQ(bench.host.Read(600 * kSecond), ScriptedHost::kNothing);
    bench.host.Write({'C'});
    EXPECT_EQ(bench.host.Read(600 * kSecond), ScriptedHost::kNothing);
    EXPECT_THAT(bench.milestones, ElementsAre(kind + ": silent from here"));
  }
}

TEST(List, KnowsItsKinds) {
  EXPECT_EQ(MakeDevices(""), nullptr);
  EXPECT_EQ(MakeDevices("can,"), nullptr);
  EXPECT_EQ(MakeDevices("can,radio"), nullptr);
  EXPECT_EQ(MakeDevices("can, sanyo"), nullptr);
  ASSERT_NE(MakeDevices("can,sanyo,can"), nullptr);
  EXPECT_EQ(MakeDevices("can,sanyo,can")->Size(), 3u);
}

TEST(List, HandsOverInEveryOrderAndBeginsAgain) {
  for (const std::string kinds : {"can,sanyo", "sanyo,can", "can,can", "sanyo,sanyo", "can,sanyo,can"}) {
    Bench bench(kinds);
    for (std::size_t round = 0; round < 2; ++round) {
      for (std::size_t index = 0; index < bench.devices->Size(); ++index) {
        ASSERT_EQ(bench.devices->Current(), index) << kinds;
        if (bench.devices->At(index).Name() == "can") {
          EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000") << kinds;
        } else {
          EXPECT_TRUE(bench.host.Send(kImage)) << kinds;
        }
        EXPECT_EQ(bench.Flash(index).Contents(), PaddedToBlocks(kImage)) << kinds;
        bench.host.Wait(700 * kMillisecond);
        bench.host.Open();
      }
    }
    EXPECT_EQ(bench.devices->Updates(), 2 * bench.devices->Size()) << kinds;
  }
}

TEST(List, HandsOverInTheMomentOfTheLastAcknowledgement) {
  Bench bench("can,sanyo");
  bench.host.UpdateCan(kLoader, kImage);
  const Micros acknowledged = bench.host.Now();
  EXPECT_EQ(bench.host.Read(kSecond), 'C');
  EXPECT_EQ(bench.host.Now(), acknowledged + 87);
}

TEST(List, GoesBackToTheFirstDeviceAfterAFailure) {
  Faults faults;
  faults.cancel_after_bytes = 5000;
  Options options = With(faults);
  options.faulty_device = 2;
  Bench bench("can,sanyo", options);
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
  EXPECT_FALSE(bench.host.Send(kImage));
  EXPECT_EQ(bench.devices->Current(), 0u);
  EXPECT_EQ(bench.devices->Failures(), 1u);
  bench.host.Open();
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
  EXPECT_TRUE(bench.host.Send(kImage));
}

TEST(List, GoesBackAtOnceWhenTheHostBeginsAnewWithTheFirstDevice) {
  Bench bench("can,sanyo");
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
  bench.host.Wait(5 * kSecond);
  bench.host.Open();
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "000");
  EXPECT_EQ(bench.devices->Failures(), 0u);
}

TEST(List, GoesBackWhenNobodyComesForTheSecondDevice) {
  for (const std::string kinds : {"can,sanyo", "can,can"}) {
    Bench bench(kinds);
    bench.host.UpdateCan(kLoader, kImage);
    bench.host.Wait(59 * kSecond);
    EXPECT_EQ(bench.devices->Current(), 1u) << kinds;
    bench.host.Wait(2 * kSecond);
    EXPECT_EQ(bench.devices->Current(), 0u) << kinds;
    EXPECT_EQ(bench.devices->Failures(), 0u) << kinds;
  }
}

TEST(List, WithOnceEndsAfterItsLastDevice) {
  Bench bench("can,sanyo", {}, {}, true);
  bench.host.UpdateCan(kLoader, kImage);
  EXPECT_FALSE(bench.devices->Finished());
  EXPECT_TRUE(bench.host.Send(kImage));
  EXPECT_TRUE(bench.devices->Finished());
  bench.host.Write({'C', 0x01});
  EXPECT_EQ(bench.host.Read(600 * kSecond), ScriptedHost::kNothing);
}

TEST(Garbage, NeverWedgesADevice) {
  for (std::uint32_t seed = 0; seed < 60; ++seed) {
    std::mt19937 random(seed);
    Bench bench(seed % 2 == 0 ? "can" : "sanyo");
    const Bytes favourites{'C', 0x01, 0x02, 0x04, 0x06, 0x15, 0x18};
    for (int byte = 0; byte < 2000; ++byte) {
      const std::uint8_t any = static_cast<std::uint8_t>(random());
      bench.host.Write({random() % 3 == 0 ? favourites[any % favourites.size()] : any});
      bench.host.Wait(random() % 200 == 0 ? kSecond : 90);
      bench.host.Open();
    }
    bench.host.Wait(70 * kSecond);
    bench.host.Open();
    if (seed % 2 == 0) {
      ASSERT_EQ(bench.host.UpdateCan(kLoader, kImage), "000") << "seed " << seed;
    } else {
      ASSERT_TRUE(bench.host.Send(kImage)) << "seed " << seed;
    }
    ASSERT_EQ(bench.Flash().Contents(), PaddedToBlocks(kImage)) << "seed " << seed;
  }
}

TEST(Noise, IsSurvivedOrSeenButNeverAcceptedAsSuccess) {
  int succeeded = 0;
  for (std::uint64_t seed = 1; seed <= 60; ++seed) {
    LineOptions line_options;
    line_options.noise_rate = 0.0002;
    line_options.noise_seed = seed;
    Bench bench("can", {}, line_options);
    if (bench.host.UpdateCan(kLoader, kImage) == "000") {
      ++succeeded;
      EXPECT_EQ(bench.Flash().Contents(), PaddedToBlocks(kImage)) << "seed " << seed;
    }
  }
  EXPECT_GE(succeeded, 30);
}

TEST(Unplugged, HostSeesIt) {
  LineOptions line_options;
  line_options.unplug_after_bytes = 5000;
  Bench bench("can", {}, line_options);
  EXPECT_EQ(bench.host.UpdateCan(kLoader, kImage), "(not sent)");
  EXPECT_EQ(bench.host.Read(kSecond), ScriptedHost::kUnplugged);
}

}  // namespace simulator
