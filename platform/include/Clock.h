// Time as the features see it.
#pragma once

#include "Types.h"

/// Milliseconds since some fixed moment; never runs backwards. Any thread.
TUint64 OSALTickCount();

/// Pauses the calling thread for at least `microseconds`; 0 only gives the processor to others.
void platSleep(TInt microseconds);
