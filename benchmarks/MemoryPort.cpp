// The platform under an engine that is measured alone: a clock that stands still, and pauses that take no
// time.
#include "Clock.h"
#include "ISerialPort.h"

TUint64 OSALTickCount() {
  return 0;
}

void platSleep(TInt /*microseconds*/) {}

ISerialPort* ISerialPort::Create(const TChr* /*name*/, TInt32 /*speed*/, TBool /*hardwareFlowControl*/,
                                 TBool /*lowLatency*/) {
  return nullptr;
}
