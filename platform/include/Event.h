/// @file
/// The event record that the broker carries.
#pragma once

#include "Types.h"

/// Event types: the broker's own timer, and what features and controllers say to each other.
enum TEventType : TUint32 { ETimerEvent = 0, EUserEvent = 3 };

/// An event, or a subscription's filter, of which only type and id are compared. In a posted event `data`
/// points at `length` bytes that belong to the poster. In a timer's filter (type 0, id 0) `length` is the
/// period in milliseconds and `data` is 1 for a timer that repeats.
struct TEvent {
  TUint32 type;      ///< of TEventType
  TUint32 id;        ///< what it says, among the events of its type
  TUint32 length;    ///< bytes at `data`; of a timer's filter its period in milliseconds
  const void* data;  ///< belongs to the poster, or to the broker while an event is delivered
};
