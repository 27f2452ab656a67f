// Goal: a module is loaded or refused with a reason that a person understands, and unloaded in the right
// order. Method: small shared libraries built for the purpose, and files that are none.
#include "FeatureModule.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include "EventBroker.h"
#include "Files.h"
#include "PropertyStore.h"

namespace {

using host::FeatureModule;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kFakeModule = FAKE_MODULES "FakeModule.so";
constexpr const char* kAdvice =
    "Name the module's library with --module or with 'library' in the configuration.";

std::string FaultOf(const std::string& library) {
  std::string fault;
  EXPECT_EQ(FeatureModule::Load(library, fault), nullptr);
  EXPECT_THAT(fault, EndsWith(kAdvice));
  return fault;
}

bool IsLoaded(const std::string& library) {
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

class CountingBroker final : public IEventBroker {
 public:
  void Subscribe(const TEvent&, IEventObserver&) override { ++iSubscriptions; }
  void Unsubscribe(const TEvent&, IEventObserver&) override {
    EXPECT_TRUE(IsLoaded(kFakeModule));
    --iSubscriptions;
  }
  void Post(const TEvent&) override {}

  int iSubscriptions = 0;
};

class NoInterfaces final : public IInterfaceBroker {};

TEST(FeatureModule, IsLoadedCreatedDeletedAndUnloadedInThisOrder) {
  CountingBroker broker;
  NoInterfaces interfaces;
  host::PropertyStore properties;
  std::string fault;
  {
    const auto module = FeatureModule::Load(kFakeModule, fault);
    ASSERT_NE(module, nullptr) << fault;
    ASSERT_TRUE(module->Create("id", interfaces, broker, properties, fault)) << fault;
    EXPECT_EQ(broker.iSubscriptions, 3);
  }
  EXPECT_EQ(broker.iSubscriptions, 0);
  EXPECT_FALSE(IsLoaded(kFakeModule));
}

TEST(FeatureModule, AModuleThatMakesNothingIsNamed) {
  CountingBroker broker;
  NoInterfaces interfaces;
  host::PropertyStore properties;
  std::string fault;
  const auto module = FeatureModule::Load(kFakeModule, fault);
  ASSERT_NE(module, nullptr) << fault;
  EXPECT_FALSE(module->Create("makes-nothing", interfaces, broker, properties, fault));
  EXPECT_EQ(fault, "The module '" + kFakeModule + "' made no feature for the id 'makes-nothing'.");
}

TEST(FeatureModule, AMissingLibraryIsNamed) {
  EXPECT_EQ(FaultOf("/nowhere/x.so"), std::string("The module '/nowhere/x.so' does not exist. ") + kAdvice);
  EXPECT_THAT(FaultOf("libNobodyHasThis.so"),
              StartsWith("The module 'libNobodyHasThis.so' cannot be loaded as a shared library: "));
}

TEST(FeatureModule, ATextOrAFolderIsNoSharedLibrary) {
  const TemporaryFolder folder;
  const std::string text =
      folder.Write("text.so", "I am no library, however long I am made to look like one.");
  EXPECT_THAT(FaultOf(text), AllOf(HasSubstr(text), HasSubstr("cannot be loaded as a shared library: ")));
  EXPECT_THAT(FaultOf("/tmp/"), HasSubstr("cannot be loaded as a shared library: "));
}

TEST(FeatureModule, AMissingFunctionIsNamed) {
  EXPECT_THAT(FaultOf(FAKE_MODULES "NoTypeModule.so"),
              HasSubstr("NoTypeModule.so' is no feature module: it has no function FeatureType."));
  EXPECT_THAT(FaultOf(FAKE_MODULES "NoCreateModule.so"), HasSubstr("it has no function FeatureCreate2."));
}

TEST(FeatureModule, AnotherTypeIsNamed) {
  EXPECT_THAT(FaultOf(FAKE_MODULES "WrongTypeModule.so"),
              HasSubstr("provides a feature of type 'radio'; needed is 'peripheralloader'."));
  EXPECT_FALSE(IsLoaded(FAKE_MODULES "WrongTypeModule.so"));
}

TEST(FeatureModule, TheDefaultLiesBesideTheProgramThenInLibThenWhereTheLoaderFindsIt) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder.Path("bin"));
  std::filesystem::create_directories(folder.Path("lib"));
  EXPECT_EQ(FeatureModule::DefaultLibrary(folder.Path("bin")), "libPeripheralLoader.so");
  const std::string inLib = folder.Write("lib/libPeripheralLoader.so", "");
  EXPECT_EQ(FeatureModule::DefaultLibrary(folder.Path("bin")), inLib);
  const std::string beside = folder.Write("bin/libPeripheralLoader.so", "");
  EXPECT_EQ(FeatureModule::DefaultLibrary(folder.Path("bin")), beside);
}

}  // namespace
