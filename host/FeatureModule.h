#pragma once

#include <memory>
#include <string>

#include "FeatureEntry.h"

namespace host {

/// A peripheral loader feature from a shared library: the library, and the module object that it made.
class FeatureModule {
 public:
  /// Loads `library` and looks up what a feature must have. A name without a slash is searched by the dynamic
  /// loader. Returns null on failure, with the reason for people in `fault`.
  static std::unique_ptr<FeatureModule> Load(const std::string& library, std::string& fault);

  /// The library to load when none is named: beside the executable, in ../lib, or wherever the dynamic loader
  /// finds it. `executableFolder` is where the running program lies.
  static std::string DefaultLibrary(const std::string& executableFolder);

  /// Deletes the module object, then unloads the library.
  ~FeatureModule() = default;

  /// Makes the module object, once. The brokers and the properties must outlive this FeatureModule. Returns
  /// false when the library made none, with the reason in `fault`.
  bool Create(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker, IEventBroker& eventBroker,
              const IFeatureProperties& properties, std::string& fault);

 private:
  struct Unload {
    void operator()(void* handle) const;
  };
  using Library = std::unique_ptr<void, Unload>;

  FeatureModule(std::string name, Library library, TFeatureCreate2Function create);

  std::string iName;
  // In this order: the object's code is in the library, so the library must go last.
  Library iLibrary;
  TFeatureCreate2Function iCreate;
  std::unique_ptr<IFeatureModule2> iModule;
};

}  // namespace host
