#include "CanXModemLoader.h"

#include "LoaderPreparation.h"
#include "Logging.h"

namespace {
constexpr char KLoaderName[] = "CanXModemLoader";
}

CCanXModemLoader::CCanXModemLoader(TFeatureId& featureId, IEventBroker& broker,
                                   const IFeatureProperties& properties, ILoaderCallback& callback,
                                   ISerialPort::TCreate createSerialPort, IXModem::TCreate createXModem,
                                   CCanXModemSwl::TCreate createSwl)
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

CCanXModemLoader::~CCanXModemLoader() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

TBool CCanXModemLoader::Prepare() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  std::string speed;
  const std::initializer_list<TRequiredProperty> required = {{"xmodemsource-image", iSourceImage},
                                                             {"xmodemsource-loader", iSourceLoader},
                                                             {"xmodemspeed", speed},
                                                             {"xmodemportname", iPortName},
                                                             {"xmodemramaddress", iRamAddress},
                                                             {"xmodemflashaddress", iFlashAddress}};
  CLoaderPreparation preparation;
  preparation.ReadProperties(iProperties, iFeatureId, required);
  iSpeed = preparation.CheckSpeed(speed);
  preparation.CheckImage(iSourceImage);
  preparation.CheckLoader(iSourceLoader);
  preparation.CheckPort(iPortName);
  return preparation.Conclude();
}

void CCanXModemLoader::Install() {
  LOG_INFO(logging::PeripheralLoader, KLoaderName);
  if (!StartSession()) {
    iCallback.Completed(EFalse);
  }
}

bool CCanXModemLoader::StartSession() {
  ISerialPort* port = iCreateSerialPort(AsTChr(iPortName), iSpeed, EFalse, ETrue);
  if (port == nullptr) {
    return false;
  }
  IXModem* engine = iCreateXModem(port);
  if (engine == nullptr) {
    return false;
  }
  iSwl = iSwls.Own(
      iCreateSwl(engine, iEventBroker, iCallback, iSourceLoader, iSourceImage, iRamAddress, iFlashAddress));
  if (iSwl == nullptr) {
    return false;
  }
  iSwl->StartUpload();
  return true;
}

void CCanXModemLoader::Abort() {
  LOG_INFO(logging::PeripheralLoader, KLoaderName);
  iCallback.Aborted();
}
