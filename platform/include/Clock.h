/// @file
/// Time as the features see it.
#pragma once

#include "Types.h"

/// Milliseconds since some fixed moment; never runs backwards. Any thread.
TUint64 OSALTickCount();

/// Pauses the calling thread for at least `microseconds`. 0 only gives the processor to others: for a moment,
/// or, when the thread's last call of the platform was a read that found nothing, until there is something to
/// read, for a few milliseconds at most. Below 0 nothing happens.
void platSleep(TInt microseconds);
