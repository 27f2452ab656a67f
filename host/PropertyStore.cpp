#include "PropertyStore.h"

namespace host {

void PropertyStore::Set(const TFeatureId& featureId, const std::string& key, const std::string& value) {
  iFeatures[featureId][key] = value;
}

void PropertyStore::Set(const TFeatureId& featureId, const PropertyMap& properties) {
  for (const auto& [key, value] : properties) {
    Set(featureId, key, value);
  }
}

TBool PropertyStore::Get(const TFeatureId& featureId, const std::string& key, std::string& value) const {
  const auto feature = iFeatures.find(featureId);
  if (feature == iFeatures.end()) {
    return EFalse;
  }
  const auto property = feature->second.find(key);
  if (property == feature->second.end()) {
    return EFalse;
  }
  value = property->second;
  return ETrue;
}

}  // namespace host
