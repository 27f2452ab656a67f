#include "SanyoXModemLoader.h"

#include "LoaderPreparation.h"
#include "Logging.h"

namespace {
constexpr char KLoaderName[] = "SanyoXModemLoader";
}

CSanyoXModemLoader::CSanyoXModemLoader(TFeatureId& featureId, IEventBroker& broker,
                                       const IFeatureProperties& properties, ILoaderCallback& callback,
                                       ISerialPort::TCreate createSerialPort, IXModem::TCreate createXModem,
                                       CSanyoXModemSwl::TCreate createSwl)
    : iSpeed(KDefaultXModemSpeed),
      iCallback(callback),
      iProperties(properties),
      iEventBroker(broker),
      iFeatureId(featureId),
      iCreateSerialPort(createSerialPort),
      iCreateXModem(createXModem),
      iCreateSwl(createSwl),
      iSwl(nullptr) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

CSanyoXModemLoader::~CSanyoXModemLoader() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

TBool CSanyoXModemLoader::Prepare() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  std::string speed;
  const std::initializer_list<TRequiredProperty> required = {
      {"xmodemsource-image", iSourceImage}, {"xmodemspeed", speed}, {"xmodemportname", iPortName}};
  CLoaderPreparation preparation;
  preparation.ReadProperties(iProperties, iFeatureId, required);
  iSpeed = preparation.CheckSpeed(speed);
  preparation.CheckImage(iSourceImage);
  preparation.CheckPort(iPortName);
  return preparation.Conclude();
}

void CSanyoXModemLoader::Install() {
  LOG_INFO(logging::PeripheralLoader, KLoaderName);
  if (!StartSession()) {
    iCallback.Completed(EFalse);
  }
}

bool CSanyoXModemLoader::StartSession() {
  ISerialPort* port = iCreateSerialPort(AsTChr(iPortName), iSpeed, EFalse, EFalse);
  if (port == nullptr) {
    LOG_ERROR(logging::PeripheralLoader, "Error creating serialport " << iPortName << " " << iSpeed);
    return false;
  }
  IXModem* engine = iCreateXModem(port);
  if (engine == nullptr) {
    LOG_ERROR(logging::PeripheralLoader, "Error creating XModem");
    return false;
  }
  iSwl = iSwls.Own(iCreateSwl(engine, iEventBroker, iCallback, iSourceImage));
  if (iSwl == nullptr) {
    LOG_ERROR(logging::PeripheralLoader, "Error creating SanyoXModemLoader");
    return false;
  }
  iSwl->StartUpload();
  return true;
}

void CSanyoXModemLoader::Abort() {
  LOG_INFO(logging::PeripheralLoader, KLoaderName);
  iCallback.Aborted();
}
