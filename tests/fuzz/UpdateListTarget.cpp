// Goal: whatever the update list says, there is one loader for every entry that is known, in the list's
// order, and a complaint for every other. Method: the input is the list. The expectation comes from the
// reference host, which takes lists apart by code of its own.
#include <memory>
#include <string>
#include <vector>

#include "CanXModemLoader.h"
#include "LoaderFactory.h"
#include "Peripherals.h"
#include "RecordingBroker.h"
#include "SanyoXModemLoader.h"
#include "Target.h"

namespace fuzz {
namespace {

class NoCallback : public ILoaderCallback {
 public:
  void Progress(TUint32 /*remaining*/, TUint32 /*total*/) override { Promise(false, "progress of nothing"); }
  void Completed(TBool /*successful*/) override { Promise(false, "the end of nothing"); }
  void Aborted() override { ++aborted; }
  int aborted = 0;
};

std::string KindOf(ILoader* loader) {
  if (dynamic_cast<CCanXModemLoader*>(loader) != nullptr) {
    return "xmodem";
  }
  return dynamic_cast<CSanyoXModemLoader*>(loader) != nullptr ? "sanyoxmodem" : "";
}

std::vector<std::string> KnownEntries(std::string_view list) {
  std::vector<std::string> known;
  for (const std::string_view entry : host::UpdateListEntries(list)) {
    if (host::FindPeripheralKind(entry) != nullptr) {
      known.emplace_back(entry);
    }
  }
  return known;
}

}  // namespace

void Run(std::string_view input) {
  TFeatureId featureId = "feature";
  RecordingBroker broker;
  const FakeProperties properties;
  NoCallback callback;
  std::vector<ILoader*> loaders;
  CLoaderFactory().Create(std::string(input), loaders, featureId, broker, properties, callback);

  std::vector<std::string> made;
  for (ILoader* loader : loaders) {
    const std::unique_ptr<ILoader> owned(loader);
    made.push_back(KindOf(loader));
    Promise(loader->Prepare() == EFalse, "a loader without any property is ready");
    loader->Abort();
  }
  Promise(made == KnownEntries(input), "the loaders are not those of the list");
  Promise(callback.aborted == static_cast<int>(made.size()), "an abort was not answered");
  Promise(broker.Calls().empty(), "loaders speak to the broker unasked");
}

}  // namespace fuzz
