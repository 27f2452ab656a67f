#pragma once

#include "Event.h"

/// Who receives events from the broker.
class IEventObserver {
 public:
  virtual ~IEventObserver() = default;

  /// One event, on the broker's delivery thread. `event.data` is valid until the call returns.
  virtual void OnEvent(const TEvent& event) = 0;
};
