#pragma once

#include "Event.h"
#include "IEventObserver.h"

/// Carries events between the features and the controllers of a host. One thread delivers them all; every
/// operation may be called from any thread and from inside OnEvent.
class IEventBroker {
 public:
  virtual ~IEventBroker() = default;

  /// From now on every event of the filter's type and id reaches `observer`, which must stay alive until it
  /// is unsubscribed. A filter of type 0 and id 0 starts a timer of its own for the observer (see TEvent).
  virtual void Subscribe(const TEvent& filter, IEventObserver& observer) = 0;

  /// Ends a subscription. A pair that is not subscribed is ignored. No OnEvent runs for it after the return,
  /// unless the call came from inside that very OnEvent.
  virtual void Unsubscribe(const TEvent& filter, IEventObserver& observer) = 0;

  /// Delivers the event to its subscribers, later and on the delivery thread. The payload is copied before
  /// the return, so it may live on the caller's stack.
  virtual void Post(const TEvent& event) = 0;
};
