#pragma once

#include <initializer_list>
#include <string>

#include "IFeatureProperties.h"
#include "Types.h"

constexpr TInt32 KDefaultXModemSpeed = 115200;  // bit/s
constexpr TInt32 KMinXModemSpeed = 75;          // bit/s

/// A property that a loader cannot do without, and where its text goes.
struct TRequiredProperty {
  const char* key;
  std::string& value;
};

/// The checks that the preparation of every loader is made of. Each logs its own fault and lets the others
/// run, so that one pass shows all faults.
class CLoaderPreparation {
 public:
  /// Reads the properties in order and stops at the first that is missing; the rest keep their values.
  void ReadProperties(const IFeatureProperties& properties, const TFeatureId& featureId,
                      std::initializer_list<TRequiredProperty> required);

  /// The speed that `text` starts with, in bit/s; 0 where it starts with no number.
  TInt32 CheckSpeed(const std::string& text);

  void CheckImage(const std::string& path) { CheckSource("Invalid source image: ", path); }
  void CheckLoader(const std::string& path) { CheckSource("Invalid source loader: ", path); }

  /// The device is there and may be read.
  void CheckPort(const std::string& name);

  /// Logs the verdict and returns it: ETrue when no check has failed.
  TBool Conclude() const;

 private:
  void CheckSource(const char* complaint, const std::string& path);

  bool iOk = true;
};
