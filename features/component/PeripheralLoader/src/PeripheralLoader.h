#pragma once

#include <vector>

#include "Event.h"
#include "IEventBroker.h"
#include "IEventObserver.h"
#include "IFeatureModule2.h"
#include "IFeatureProperties.h"
#include "IInterfaceBroker.h"
#include "ILoader.h"
#include "ILoaderCallback.h"
#include "LoaderFactory.h"

/// The feature's module object: takes the controller's requests, runs the loaders one after another and
/// reports progress and results. Every operation runs on the thread that delivers events; they nest.
class CPeripheralLoader : public IFeatureModule2, public ILoaderCallback, public IEventObserver {
 public:
  /// Subscribes to the controller's requests and announces the feature. The factory belongs to the module;
  /// the broker and the properties must outlive it.
  CPeripheralLoader(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker, IEventBroker& eventBroker,
                    const IFeatureProperties& properties, CLoaderFactory* factory);
  ~CPeripheralLoader() override;

  CPeripheralLoader(const CPeripheralLoader&) = delete;
  CPeripheralLoader& operator=(const CPeripheralLoader&) = delete;

  void Progress(TUint32 remainingSize, TUint32 totalSize) override;
  void Completed(TBool successful) override;
  void Aborted() override;

  void OnEvent(const TEvent& event) override;

 private:
  void SubscribeEvents();
  void UnsubscribeEvents();

  void DeleteLoaders();

  TBool ParseProperties();
  void HandleControllerPrepare();
  void HandleControllerInstall();
  void HandleControllerAbort();

  void HandleLoaderProgress(TUint8 loaderPercent);
  void HandleLoaderCompleted();
  void HandleLoaderFailed();
  void HandleLoaderAborted();

  void InstallLoader(TUint16 index);
  void PostResult(TUint32 id, TBool flag);
  template <typename TPayload>
  TPayload MakePayload() const;

  TFeatureId iFeatureId;
  const IFeatureProperties& iProperties;
  IEventBroker& iEventBroker;
  std::vector<ILoader*> iLoaders;
  ILoader* iCurrentLoader;
  TUint16 iCurrentIndex;
  TEvent iPrepareFilter;
  TEvent iInstallFilter;
  TEvent iAbortFilter;
  CLoaderFactory* iFactory;
};
