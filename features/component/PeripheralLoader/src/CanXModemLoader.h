#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>

#include "CanXModemSwl.h"
#include "IEventBroker.h"
#include "IFeatureProperties.h"
#include "ILoader.h"
#include "ILoaderCallback.h"
#include "ISerialPort.h"
#include "IXModem.h"
#include "OwnedSwls.h"

/// Loads a CAN controller's microcontroller: a loader program and an image, through a serial port. All
/// operations run on the thread that delivers events.
class CCanXModemLoader : public ILoader {
 public:
  /// The references must outlive the loader; the id is copied.
  CCanXModemLoader(TFeatureId& featureId, IEventBroker& broker, const IFeatureProperties& properties,
                   ILoaderCallback& callback, ISerialPort::TCreate createSerialPort,
                   IXModem::TCreate createXModem, CCanXModemSwl::TCreate createSwl);
  ~CCanXModemLoader() override;

  TBool Prepare() override;

  /// Reports Completed(EFalse) when port, engine or session cannot be made; what was made before is not
  /// released here. Installing again starts a new session; the ones before it are kept until the loader dies,
  /// since the call may come from inside one of them.
  void Install() override;

  /// Reports Aborted; a running upload goes on.
  void Abort() override;

  // Loaders are made and released with the C allocator.
  static void* operator new(std::size_t size) noexcept { return std::malloc(size); }
  static void operator delete(void* storage) noexcept { std::free(storage); }

 private:
  bool StartSession();

  std::string iSourceImage;
  std::string iSourceLoader;
  TInt32 iSpeed;
  std::string iPortName;
  std::string iRamAddress;
  std::string iFlashAddress;
  ILoaderCallback& iCallback;
  const IFeatureProperties& iProperties;
  IEventBroker& iEventBroker;
  TFeatureId iFeatureId;
  ISerialPort::TCreate iCreateSerialPort;
  IXModem::TCreate iCreateXModem;
  CCanXModemSwl::TCreate iCreateSwl;
  COwnedSwls<CCanXModemSwl> iSwls;
  CCanXModemSwl* iSwl;
};
