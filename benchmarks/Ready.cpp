// How long a host waits for the module: from dlopen to event 200. The figure is printed in microseconds.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <memory>

#include "FeatureEntry.h"
#include "FeatureEvents.h"

namespace {

class CWatchingBroker : public IEventBroker {
 public:
  void Subscribe(const TEvent& /*filter*/, IEventObserver& /*observer*/) override {}
  void Unsubscribe(const TEvent& /*filter*/, IEventObserver& /*observer*/) override {}
  void Post(const TEvent& event) override { iAnnounced = iAnnounced || event.id == EFeatureAnnounce; }

  bool IsAnnounced() const { return iAnnounced; }

 private:
  bool iAnnounced = false;
};

class CNoProperties : public IFeatureProperties {
 public:
  TBool Get(const TFeatureId& /*featureId*/, const std::string& /*key*/,
            std::string& /*value*/) const override {
    return EFalse;
  }
};

class CNoInterfaces : public IInterfaceBroker {};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s MODULE\n", argv[0]);
    return 2;
  }
  CWatchingBroker broker;
  CNoProperties properties;
  CNoInterfaces interfaces;
  const auto start = std::chrono::steady_clock::now();
  void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  const auto create = library == nullptr
                          ? nullptr
                          : reinterpret_cast<TFeatureCreate2Function>(dlsym(library, "FeatureCreate2"));
  if (create == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const std::unique_ptr<IFeatureModule2> module(create("PeripheralLoader", interfaces, broker, properties));
  const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
  std::printf("%.1f\n", taken.count());
  return broker.IsAnnounced() ? 0 : 1;
}
