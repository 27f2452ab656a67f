// A feature module that plays one part, chosen by its feature id.
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "FeatureEntry.h"
#include "FeatureEvents.h"
#include "Logging.h"

namespace {

class FakeModule final : public IFeatureModule2, public IEventObserver {
 public:
  FakeModule(const TFeatureId& featureId, IEventBroker& broker, const IFeatureProperties& properties)
      : iFeatureId(featureId), iBroker(broker), iProperties(properties) {
    for (const TFeatureEventId id : {EPrepareRequest, EInstallRequest, EAbortRequest}) {
      iBroker.Subscribe({EUserEvent, id, 0, nullptr}, *this);
    }
    if (iFeatureId != "never-announces") {
      iBroker.Post(
          {EUserEvent, EFeatureAnnounce, static_cast<TUint32>(iFeatureId.size()), iFeatureId.data()});
    }
  }

  ~FakeModule() override {
    for (const TFeatureEventId id : {EPrepareRequest, EInstallRequest, EAbortRequest}) {
      iBroker.Unsubscribe({EUserEvent, id, 0, nullptr}, *this);
    }
    LOG_INFO(logging::PeripheralLoader, "Fake module is deleted");
  }

  void OnEvent(const TEvent& event) override {
    switch (event.id) {
      case EPrepareRequest:
        Prepare();
        break;
      case EInstallRequest:
        Install();
        break;
      default:
        Abort();
        break;
    }
  }

 private:
  void Prepare() {
    if (iFeatureId == "hangs") {
      std::this_thread::sleep_for(std::chrono::hours(1));
    }
    if (iFeatureId == "file-changes") {
      ChangeImage();
    }
    if (iFeatureId == "prepare-fails") {
      LOG_ERROR(logging::Platform, "Cannot use serial port /dev/fake: another program holds it");
      LOG_ERROR(logging::Platform, "Cannot use serial port /dev/fake: another program holds it");
    }
    std::string list;
    const bool found = iProperties.Get(iFeatureId, "updatelist", list) == ETrue && list == "sanyoxmodem";
    Result(EPrepareResult, found && iFeatureId != "prepare-fails");
  }

  void Install() {
    LOG_ALWAYS(logging::PeripheralLoader, "SWL: Starting upload in fake");
    if (iFeatureId == "succeeds" || iFeatureId == "file-changes") {
      for (const int percent : {0, 4, 10, 37, 20, 100}) {
        Progress(percent);
      }
      Result(EInstallResult, true);
      LOG_ALWAYS(logging::PeripheralLoader, "SWL: Finished upload in fake");
    } else if (iFeatureId == "logs") {
      for (int i = 0; i < 100; ++i) {
        Progress(i);
        LOG_INFO(logging::PeripheralLoader, "Line of the log before a pause");
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        LOG_INFO(logging::PeripheralLoader, "Line of the log");
      }
      Result(EInstallResult, true);
    } else if (iFeatureId == "fails-once") {
      Progress(iFailedOnce ? 100 : 60);
      Result(EInstallResult, iFailedOnce);
      iFailedOnce = true;
    } else if (iFeatureId == "cannot-start") {
      Result(EInstallResult, false);
    } else if (iFeatureId == "fails-and-changes") {
      ChangeImage();
      Result(EInstallResult, false);
    } else if (iFeatureId == "install-fails") {
      Progress(10);
      LOG_ERROR(logging::PeripheralLoader, "The device answered 013");
      Result(EInstallResult, false);
    } else if (iFeatureId != "never-answers") {
      Progress(42);
    }
  }

  void ChangeImage() {
    std::string image;
    iProperties.Get(iFeatureId, "xmodemsource-image", image);
    std::ofstream(image, std::ios::app) << "more";
  }

  void Abort() {
    if (iFeatureId != "ignores-abort") {
      Result(EAbortResult, true);
    }
  }

  void Result(TFeatureEventId id, bool success) {
    TFeatureResultPayload payload = {};
    std::memcpy(payload.featureId, iFeatureId.data(), iFeatureId.size());
    payload.flag = success ? ETrue : EFalse;
    iBroker.Post({EUserEvent, id, sizeof(payload), &payload});
  }

  void Progress(int percent) {
    TFeatureProgressPayload payload = {};
    std::memcpy(payload.featureId, iFeatureId.data(), iFeatureId.size());
    payload.percent = static_cast<TUint8>(percent);
    iBroker.Post({EUserEvent, EInstallProgress, sizeof(payload), &payload});
  }

  bool iFailedOnce = false;
  const TFeatureId iFeatureId;
  IEventBroker& iBroker;
  const IFeatureProperties& iProperties;
};

}  // namespace

extern "C" const char* FeatureType() {
  return "peripheralloader";
}

extern "C" IFeatureModule2* FeatureCreate2(const TFeatureId& featureId, IInterfaceBroker& /*interfaceBroker*/,
                                           IEventBroker& eventBroker, const IFeatureProperties& properties) {
  if (featureId == "throws") {
    throw std::runtime_error("the module threw this");
  }
  return featureId == "makes-nothing" ? nullptr : new FakeModule(featureId, eventBroker, properties);
}
