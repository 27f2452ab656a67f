// Prints what a compiler's dump of classes does not tell: where fields lie, which place of its class's table
// a virtual function has, and what values stand for.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Event.h"
#include "FeatureEvents.h"
#include "FileHandler.h"
#include "IEventBroker.h"
#include "IFeatureProperties.h"
#include "ISerialPort.h"
#include "Logging.h"

#define FIELD(type, field) std::printf("%s.%s at %zu\n", #type, #field, offsetof(type, field))
#define VALUE(name) std::printf("%s = %ld\n", #name, static_cast<long>(name))

// In the ABI that all of today's compilers for Linux share, a pointer to a virtual member function begins
// with the function's place in the table, in bytes, plus 1.
template <typename TMember>
long SlotOf(TMember member) {
  std::intptr_t place = 0;
  static_assert(sizeof(member) >= sizeof(place));
  std::memcpy(&place, &member, sizeof(place));
  return static_cast<long>((place - 1) / static_cast<std::intptr_t>(sizeof(void*)));
}

#define SLOT(function) std::printf("%s is virtual function %ld\n", #function, SlotOf(&function))

int main() {
  SLOT(IEventBroker::Subscribe);
  SLOT(IEventBroker::Unsubscribe);
  SLOT(IEventBroker::Post);
  SLOT(IEventObserver::OnEvent);
  SLOT(IFeatureProperties::Get);
  SLOT(ISerialPort::Write);
  SLOT(ISerialPort::Read);
  SLOT(logging::ISink::Write);
  FIELD(TEvent, type);
  FIELD(TEvent, id);
  FIELD(TEvent, length);
  FIELD(TEvent, data);
  FIELD(TFeatureResultPayload, featureId);
  FIELD(TFeatureResultPayload, flag);
  FIELD(TFeatureProgressPayload, featureId);
  FIELD(TFeatureProgressPayload, percent);
  FIELD(logging::TLine, level);
  FIELD(logging::TLine, module);
  FIELD(logging::TLine, signature);
  FIELD(logging::TLine, file);
  FIELD(logging::TLine, line);
  FIELD(logging::TLine, message);
  VALUE(ETimerEvent);
  VALUE(EUserEvent);
  VALUE(EFeatureAnnounce);
  VALUE(EPrepareRequest);
  VALUE(EPrepareResult);
  VALUE(EInstallRequest);
  VALUE(EInstallResult);
  VALUE(EInstallProgress);
  VALUE(EAbortRequest);
  VALUE(EAbortResult);
  VALUE(logging::PeripheralLoader);
  VALUE(logging::SWLInfra);
  VALUE(logging::Platform);
  VALUE(logging::Host);
  VALUE(logging::EInterface);
  VALUE(logging::EInfo);
  VALUE(logging::EWarning);
  VALUE(logging::EError);
  VALUE(logging::EAlways);
  VALUE(IFileHandler::EFileHndlOk);
  VALUE(IFileHandler::EFileHndlError);
  VALUE(IFileHandler::EFileHndlSyncFailed);
  VALUE(IFileHandler::EFormatFat);
  VALUE(IFileHandler::EFormatExt3);
  VALUE(IFileHandler::EFormatExt2);
  VALUE(IFileHandler::EFormatExt2Loopback);
}
