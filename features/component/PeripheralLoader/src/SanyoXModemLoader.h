#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>

#include "IEventBroker.h"
#include "IFeatureProperties.h"
#include "ILoader.h"
#include "ILoaderCallback.h"
#include "ISerialPort.h"
#include "IXModem.h"
#include "OwnedSwls.h"
#include "SanyoXModemSwl.h"

/// Loads a Sanyo device: one image, through a serial port. All operations run on the thread that delivers
/// events.
class CSanyoXModemLoader : public ILoader {
 public:
  /// The references must outlive the loader; the id is copied.
  CSanyoXModemLoader(TFeatureId& featureId, IEventBroker& broker, const IFeatureProperties& properties,
                     ILoaderCallback& callback, ISerialPort::TCreate createSerialPort,
                     IXModem::TCreate createXModem, CSanyoXModemSwl::TCreate createSwl);
  ~CSanyoXModemLoader() override;

  TBool Prepare() override;

  /// Logs what cannot be made of port, engine and session, and reports Completed(EFalse); what was made
  /// before is not released here. Sessions that a further install replaces are kept until the loader dies,
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
  TInt32 iSpeed;
  std::string iPortName;
  ILoaderCallback& iCallback;
  const IFeatureProperties& iProperties;
  IEventBroker& iEventBroker;
  TFeatureId iFeatureId;
  ISerialPort::TCreate iCreateSerialPort;
  IXModem::TCreate iCreateXModem;
  CSanyoXModemSwl::TCreate iCreateSwl;
  COwnedSwls<CSanyoXModemSwl> iSwls;
  CSanyoXModemSwl* iSwl;
};
