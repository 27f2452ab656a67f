#include "FeatureModule.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <filesystem>
#include <utility>

namespace host {

namespace {

constexpr const char* kFeatureType = "peripheralloader";
constexpr const char* kLibraryName = "libPeripheralLoader.so";
constexpr const char* kTypeSymbol = "FeatureType";
constexpr const char* kCreateSymbol = "FeatureCreate2";
constexpr const char* kAdvice =
    "Name the module's library with --module or with 'library' in the configuration.";

bool IsPath(const std::string& library) {
  return library.find('/') != std::string::npos;
}

std::string OpenFault(const std::string& library, const std::string& reason) {
  std::error_code error;
  if (IsPath(library) && !std::filesystem::exists(library, error)) {
    return fmt::format("The module '{}' does not exist. {}", library, kAdvice);
  }
  return fmt::format("The module '{}' cannot be loaded as a shared library: {}. {}", library, reason,
                     kAdvice);
}

std::string MissingSymbol(const std::string& library, const char* symbol) {
  return fmt::format("The library '{}' is no feature module: it has no function {}. {}", library, symbol,
                     kAdvice);
}

template <typename Function>
Function Find(void* library, const char* symbol) {
  return reinterpret_cast<Function>(dlsym(library, symbol));
}

}  // namespace

void FeatureModule::Unload::operator()(void* handle) const {
  dlclose(handle);
}

FeatureModule::FeatureModule(std::string name, Library library, TFeatureCreate2Function create)
    : iName(std::move(name)), iLibrary(std::move(library)), iCreate(create) {}

std::unique_ptr<FeatureModule> FeatureModule::Load(const std::string& library, std::string& fault) {
  Library handle(dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (handle == nullptr) {
    const char* reason = dlerror();  // NOLINT(concurrency-mt-unsafe): each thread has its own
    fault = OpenFault(library, reason == nullptr ? "unknown reason" : reason);
    return nullptr;
  }
  const auto type = Find<TFeatureTypeFunction>(handle.get(), kTypeSymbol);
  const auto create = Find<TFeatureCreate2Function>(handle.get(), kCreateSymbol);
  if (type == nullptr || create == nullptr) {
    fault = MissingSymbol(library, type == nullptr ? kTypeSymbol : kCreateSymbol);
    return nullptr;
  }
  const char* typeName = type();
  if (typeName == nullptr || std::string(typeName) != kFeatureType) {
    fault = fmt::format("The module '{}' provides a feature of type '{}'; needed is '{}'. {}", library,
                        typeName == nullptr ? "" : typeName, kFeatureType, kAdvice);
    return nullptr;
  }
  return std::unique_ptr<FeatureModule>(new FeatureModule(library, std::move(handle), create));
}

std::string FeatureModule::DefaultLibrary(const std::string& executableFolder) {
  const std::filesystem::path folder(executableFolder);
  for (const std::filesystem::path& candidate :
       {folder / kLibraryName, folder / ".." / "lib" / kLibraryName}) {
    std::error_code error;
    if (std::filesystem::exists(candidate, error)) {
      return candidate.lexically_normal().string();
    }
  }
  return kLibraryName;
}

bool FeatureModule::Create(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker,
                           IEventBroker& eventBroker, const IFeatureProperties& properties,
                           std::string& fault) {
  iModule.reset(iCreate(featureId, interfaceBroker, eventBroker, properties));
  if (iModule == nullptr) {
    fault = fmt::format("The module '{}' made no feature for the id '{}'.", iName, featureId);
  }
  return iModule != nullptr;
}

}  // namespace host
