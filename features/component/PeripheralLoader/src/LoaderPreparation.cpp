#include "LoaderPreparation.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "FileHandler.h"
#include "Logging.h"

void CLoaderPreparation::ReadProperties(const IFeatureProperties& properties, const TFeatureId& featureId,
                                        std::initializer_list<TRequiredProperty> required) {
  const bool complete = std::all_of(required.begin(), required.end(), [&](const TRequiredProperty& property) {
    return properties.Get(featureId, property.key, property.value) != EFalse;
  });
  if (!complete) {
    LOG_ERROR(logging::PeripheralLoader, "Not all required properties found!");
    iOk = false;
  }
}

TInt32 CLoaderPreparation::CheckSpeed(const std::string& text) {
  using TLimits = std::numeric_limits<TInt32>;
  const long number = std::strtol(text.c_str(), nullptr, 10);
  const auto speed = static_cast<TInt32>(std::clamp<long>(number, TLimits::min(), TLimits::max()));
  if (speed < KMinXModemSpeed) {
    LOG_ERROR(logging::PeripheralLoader, "Serial port speed too low! Speed is " << speed);
    iOk = false;
  }
  return speed;
}

void CLoaderPreparation::CheckSource(const char* complaint, const std::string& path) {
  if (IFileHandler::FileExists(AsTChr(path)) == IFileHandler::EFileHndlNotFound) {
    LOG_ERROR(logging::PeripheralLoader, complaint << path);
    iOk = false;
  }
}

void CLoaderPreparation::CheckPort(const std::string& name) {
  std::FILE* port = IFileHandler::FOpen(name.c_str(), "r");
  if (port == nullptr) {
    LOG_ERROR(logging::PeripheralLoader, "Invalid serial port name: " << name);
    iOk = false;
    return;
  }
  IFileHandler::FClose(port);
}

TBool CLoaderPreparation::Conclude() const {
  LOG_INFO(logging::PeripheralLoader, "All properties are " << (iOk ? "" : "not ") << "ok");
  return iOk ? ETrue : EFalse;
}
