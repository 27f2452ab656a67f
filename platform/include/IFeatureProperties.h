#pragma once

#include "Types.h"

/// The host's property store, read-only for features. It outlives every feature module.
class IFeatureProperties {
 public:
  virtual ~IFeatureProperties() = default;

  /// Looks `key` up among the properties of the feature `featureId`. Writes the text to `value` and returns
  /// ETrue when the key exists; else returns EFalse and leaves `value` as it was.
  virtual TBool Get(const TFeatureId& featureId, const std::string& key, std::string& value) const = 0;
};
