#include "PeripheralLoader.h"

#include <algorithm>
#include <limits>
#include <string>
#include <type_traits>

#include "FeatureEntry.h"
#include "FeatureEvents.h"
#include "Logging.h"
#include "SafeCopy.h"

namespace {

constexpr double KLargestUint32 = std::numeric_limits<TUint32>::max();

// To the nearest whole percent, halves upwards; cut to 8 bits whatever comes out. More steps left than there
// are in all wrap around.
TUint8 Percent(TUint32 remaining, TUint32 total) {
  const TUint32 done = total - remaining;
  const double percent = static_cast<double>(done) / static_cast<double>(total) * 100.0 + 0.5;
  const TUint32 whole =
      percent < KLargestUint32 ? static_cast<TUint32>(percent) : std::numeric_limits<TUint32>::max();
  return static_cast<TUint8>(whole);
}

std::string PayloadText(const TEvent& event) {
  return event.data == nullptr ? std::string()
                               : std::string(static_cast<const char*>(event.data), event.length);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const char* FeatureType() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  return "peripheralloader";
}

extern "C" __attribute__((visibility("default"))) IFeatureModule2* FeatureCreate2(
    const TFeatureId& featureId, IInterfaceBroker& interfaceBroker, IEventBroker& eventBroker,
    const IFeatureProperties& properties) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  auto* factory = new CLoaderFactory;
  return new CPeripheralLoader(featureId, interfaceBroker, eventBroker, properties, factory);
}

// A host looks the two up by name and calls them through these types.
static_assert(std::is_same_v<decltype(&FeatureType), TFeatureTypeFunction>);
static_assert(std::is_same_v<decltype(&FeatureCreate2), TFeatureCreate2Function>);

CPeripheralLoader::CPeripheralLoader(const TFeatureId& featureId, IInterfaceBroker& /*interfaceBroker*/,
                                     IEventBroker& eventBroker, const IFeatureProperties& properties,
                                     CLoaderFactory* factory)
    : iFeatureId(featureId),
      iProperties(properties),
      iEventBroker(eventBroker),
      iCurrentLoader(nullptr),
      iCurrentIndex(0),
      iPrepareFilter{EUserEvent, EPrepareRequest, 0, nullptr},
      iInstallFilter{EUserEvent, EInstallRequest, 0, nullptr},
      iAbortFilter{EUserEvent, EAbortRequest, 0, nullptr},
      iFactory(factory) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  SubscribeEvents();
  iEventBroker.Post(
      {EUserEvent, EFeatureAnnounce, static_cast<TUint32>(iFeatureId.size()), iFeatureId.data()});
}

CPeripheralLoader::~CPeripheralLoader() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  UnsubscribeEvents();
  DeleteLoaders();
  delete iFactory;
}

void CPeripheralLoader::DeleteLoaders() {
  while (!iLoaders.empty()) {
    delete iLoaders.front();
    iLoaders.front() = nullptr;
    iLoaders.erase(iLoaders.begin());
  }
}

void CPeripheralLoader::SubscribeEvents() {
  LOG_INFO(logging::PeripheralLoader, "");
  iEventBroker.Subscribe(iPrepareFilter, *this);
  iEventBroker.Subscribe(iInstallFilter, *this);
  iEventBroker.Subscribe(iAbortFilter, *this);
}

void CPeripheralLoader::UnsubscribeEvents() {
  LOG_INFO(logging::PeripheralLoader, "");
  iEventBroker.Unsubscribe(iPrepareFilter, *this);
  iEventBroker.Unsubscribe(iInstallFilter, *this);
  iEventBroker.Unsubscribe(iAbortFilter, *this);
}

// ---- The controller's requests ----

void CPeripheralLoader::OnEvent(const TEvent& event) {
  LOG_INTERFACE(logging::PeripheralLoader, "Event: " << event.type);
  if (event.type != EUserEvent) {
    LOG_ERROR(logging::PeripheralLoader, "Unexpected event: " << event.type);
    return;
  }
  LOG_INTERFACE(logging::PeripheralLoader, "UserEvent: " << event.id);
  switch (event.id) {
    case EInstallRequest:
      if (PayloadText(event) == iFeatureId) {
        LOG_ALWAYS(logging::PeripheralLoader, "SWL: Starting upload in PeripheralLoader");
        HandleControllerInstall();
      }
      break;
    case EAbortRequest:
      HandleControllerAbort();
      break;
    case EPrepareRequest:
      if (PayloadText(event) == iFeatureId) {
        HandleControllerPrepare();
      }
      break;
    default:
      LOG_ERROR(logging::PeripheralLoader, "Unexpected user event received: " << event.id);
      break;
  }
}

TBool CPeripheralLoader::ParseProperties() {
  LOG_INFO(logging::PeripheralLoader, "");
  if (!iLoaders.empty()) {
    return ETrue;
  }
  std::string updateList;
  if (iProperties.Get(iFeatureId, "updatelist", updateList) == EFalse) {
    LOG_ERROR(logging::PeripheralLoader, "Failed to retrieve 'updatelist' property");
    return EFalse;
  }
  LOG_INFO(logging::PeripheralLoader, "updatelist: " << updateList);
  iFactory->Create(updateList, iLoaders, iFeatureId, iEventBroker, iProperties, *this);
  if (std::find(iLoaders.begin(), iLoaders.end(), nullptr) == iLoaders.end()) {
    return ETrue;
  }
  // There was no memory for a loader. An installation without it would pass for one of all; the next prepare
  // request begins anew.
  DeleteLoaders();
  return EFalse;
}

void CPeripheralLoader::HandleControllerPrepare() {
  LOG_INFO(logging::PeripheralLoader, "");
  TBool result = ParseProperties();
  for (auto loader = iLoaders.begin(); loader != iLoaders.end() && result != EFalse; ++loader) {
    result = (*loader)->Prepare();
  }
  LOG_INFO(logging::PeripheralLoader, "Prepare result is " << result);
  PostResult(EPrepareResult, result);
}

void CPeripheralLoader::HandleControllerInstall() {
  LOG_INFO(logging::PeripheralLoader, "");
  iCurrentIndex = 0;
  if (iLoaders.empty()) {
    PostResult(EInstallResult, ETrue);
    return;
  }
  InstallLoader(0);
}

void CPeripheralLoader::HandleControllerAbort() {
  LOG_INFO(logging::PeripheralLoader, "");
  if (iCurrentLoader != nullptr) {
    iCurrentLoader->Abort();
  } else {
    HandleLoaderAborted();
  }
}

// ---- The loaders' reports ----

void CPeripheralLoader::Progress(TUint32 remainingSize, TUint32 totalSize) {
  LOG_INTERFACE(logging::PeripheralLoader,
                "RemainingSize: " << remainingSize << ", TotalSize: " << totalSize);
  HandleLoaderProgress(totalSize == 0 ? TUint8{100} : Percent(remainingSize, totalSize));
}

void CPeripheralLoader::Completed(TBool successful) {
  LOG_INTERFACE(logging::PeripheralLoader, "Successful: " << (successful != EFalse ? "ETrue" : "EFalse"));
  if (successful != EFalse) {
    HandleLoaderCompleted();
  } else {
    HandleLoaderFailed();
  }
}

void CPeripheralLoader::Aborted() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  HandleLoaderAborted();
}

void CPeripheralLoader::HandleLoaderProgress(TUint8 loaderPercent) {
  LOG_INFO(logging::PeripheralLoader, "");
  if (iLoaders.empty()) {
    return;
  }
  const auto loaders = static_cast<TUint32>(iLoaders.size());
  auto payload = MakePayload<TFeatureProgressPayload>();
  payload.percent = static_cast<TUint8>((iCurrentIndex * 100U + loaderPercent) / loaders);
  LOG_INFO(logging::PeripheralLoader,
           "Calculated progress: " << TUint8{payload.percent} << ". Received progress: " << loaderPercent);
  iEventBroker.Post({EUserEvent, EInstallProgress, sizeof(payload), &payload});
}

void CPeripheralLoader::HandleLoaderCompleted() {
  LOG_INFO(logging::PeripheralLoader, "");
  const auto next = static_cast<TUint16>(iCurrentIndex + 1);
  if (next < static_cast<TUint16>(iLoaders.size())) {
    InstallLoader(next);
    return;
  }
  PostResult(EInstallResult, ETrue);
  LOG_ALWAYS(logging::PeripheralLoader, "SWL: Finished upload in PeripheralLoader");
}

void CPeripheralLoader::HandleLoaderFailed() {
  LOG_INFO(logging::PeripheralLoader, "");
  PostResult(EInstallResult, EFalse);
}

void CPeripheralLoader::HandleLoaderAborted() {
  LOG_INFO(logging::PeripheralLoader, "");
  PostResult(EAbortResult, ETrue);
}

// The members are set before the call, from which the loader may call back.
void CPeripheralLoader::InstallLoader(TUint16 index) {
  iCurrentIndex = index;
  iCurrentLoader = iLoaders[index];
  iCurrentLoader->Install();
}

void CPeripheralLoader::PostResult(TUint32 id, TBool flag) {
  auto payload = MakePayload<TFeatureResultPayload>();
  payload.flag = flag;
  iEventBroker.Post({EUserEvent, id, sizeof(payload), &payload});
}

// A payload of zeros but for the feature id, which is cut to what the field holds with its terminating zero.
template <typename TPayload>
TPayload CPeripheralLoader::MakePayload() const {
  TPayload payload = {};
  platSafecopy(payload.featureId, iFeatureId.c_str(), iFeatureId.size() + 1);
  return payload;
}
