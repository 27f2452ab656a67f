#pragma once

/// A feature module as its host sees it: something to delete when the host ends.
class IFeatureModule2 {
 public:
  virtual ~IFeatureModule2() = default;
};
