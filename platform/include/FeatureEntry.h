/// @file
/// What a host looks up in a feature's shared library.
#pragma once

#include "IEventBroker.h"
#include "IFeatureModule2.h"
#include "IFeatureProperties.h"
#include "IInterfaceBroker.h"
#include "Types.h"

/// "FeatureType": the kind of feature that the library provides; a constant text.
using TFeatureTypeFunction = const char* (*)();

/// "FeatureCreate2": makes the feature's module object for one feature id. The caller deletes the result. The
/// brokers and the properties must outlive it.
using TFeatureCreate2Function = IFeatureModule2* (*)(const TFeatureId& featureId,
                                                     IInterfaceBroker& interfaceBroker,
                                                     IEventBroker& eventBroker,
                                                     const IFeatureProperties& properties);
