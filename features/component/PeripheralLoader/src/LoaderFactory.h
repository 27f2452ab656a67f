#pragma once

#include <string>
#include <vector>

#include "IEventBroker.h"
#include "IFeatureProperties.h"
#include "ILoader.h"
#include "ILoaderCallback.h"

/// Turns the list of peripherals into their loaders.
class CLoaderFactory {
 public:
  virtual ~CLoaderFactory() {}

  /// Appends one loader to `loaders` for each known entry of `updateList`, whose entries stand between ";".
  /// Unknown entries are logged and skipped. The caller deletes the loaders; the other arguments must outlive
  /// them.
  virtual void Create(const std::string& updateList, std::vector<ILoader*>& loaders, TFeatureId& featureId,
                      IEventBroker& eventBroker, const IFeatureProperties& properties,
                      ILoaderCallback& callback);
};
