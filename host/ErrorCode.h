#pragma once

#include <vector>

namespace host {

/// Everything that can go wrong, each under a code that programs may rely on.
enum class ErrorCode {
  BadUsage,
  Internal,
  ConfigUnreadable,
  ConfigInvalid,
  ConfigUntrusted,
  PropertyMissing,
  PropertyInvalid,
  FileUnusable,
  FileChanged,
  DigestMissing,
  DigestWrong,
  PortMissing,
  PortNotSerial,
  PortForbidden,
  PortBusy,
  PortUnusable,
  PortLost,
  ModuleNotLoadable,
  PrepareFailed,
  DeviceSilent,
  DeviceRestarted,
  CommandRefused,
  TransferCancelled,
  TooManyNaks,
  LineGarbled,
  Stalled,
  UpdateFailed,
  Aborted,
  NoResult,
  PortShared,
  LogNotWritten,
  TraceNotWritten,
  ReportNotWritten,
};

/// What a code stands for.
struct ErrorDescription {
  ErrorCode code;
  const char* name;    ///< stable: programs compare it
  const char* cause;   ///< for people
  const char* advice;  ///< what to do about it
};

/// All codes, in the order of the enumeration.
const std::vector<ErrorDescription>& ErrorDescriptions();

/// The description of one code.
const ErrorDescription& Describe(ErrorCode code);

}  // namespace host
