// A feature module of another type.
#include "FeatureEntry.h"

extern "C" const char* FeatureType() {
  return "radio";
}

extern "C" IFeatureModule2* FeatureCreate2(const TFeatureId&, IInterfaceBroker&, IEventBroker&,
                                           const IFeatureProperties&) {
  return nullptr;
}
