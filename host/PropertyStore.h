#pragma once

#include <map>

#include "IFeatureProperties.h"

namespace host {

/// Properties by their keys, as one feature sees them.
using PropertyMap = std::map<std::string, std::string>;

/// The host's property store: one map per feature id. Filled before the features run and only read from then
/// on; reading is safe from any thread.
class PropertyStore final : public IFeatureProperties {
 public:
  /// Adds a property, or replaces its value.
  void Set(const TFeatureId& featureId, const std::string& key, const std::string& value);

  /// Adds all of `properties`, replacing the values of keys that are there already.
  void Set(const TFeatureId& featureId, const PropertyMap& properties);

  TBool Get(const TFeatureId& featureId, const std::string& key, std::string& value) const override;

 private:
  std::map<TFeatureId, PropertyMap> iFeatures;
};

}  // namespace host
