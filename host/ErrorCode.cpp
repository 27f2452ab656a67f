#include "ErrorCode.h"

namespace host {

namespace {

const std::vector<ErrorDescription> kDescriptions = {
    // clang-format off
    {ErrorCode::BadUsage, "bad-usage",
     "the command line was not understood",
     "run peripheralctl --help"},
    {ErrorCode::Internal, "internal-error",
     "peripheralctl itself is at fault",
     "report it with the log of --log-level interface"},
    {ErrorCode::ConfigUnreadable, "config-unreadable",
     "the configuration file cannot be read",
     "check its name and its permissions"},
    {ErrorCode::ConfigInvalid, "config-invalid",
     "the configuration says something that cannot be",
     "correct the place that is named"},
    {ErrorCode::ConfigUntrusted, "config-untrusted",
     "others than root may write the configuration that root is to follow",
     "take the file and its folder away from others, or say --trust-config"},
    {ErrorCode::PropertyMissing, "property-missing",
     "the peripherals need a property that is not set",
     "add it under [properties], or with --set"},
    {ErrorCode::PropertyInvalid, "property-invalid",
     "a property has a value that cannot be",
     "correct the value that is named"},
    {ErrorCode::FileUnusable, "file-unusable",
     "a file that is to be sent cannot be",
     "check its path, its content and its permissions"},
    {ErrorCode::FileChanged, "file-changed",
     "a file changed while it was being sent",
     "wait until the file is finished, then update with it"},
    {ErrorCode::DigestMissing, "digest-missing",
     "a file has no digest although each must have one",
     "add it under [sha256]"},
    {ErrorCode::DigestWrong, "digest-wrong",
     "a file is not the one that its digest stands for",
     "fetch the file again, or correct the digest under [sha256]"},
    {ErrorCode::PortMissing, "port-missing",
     "there is no such port",
     "plug the adapter in; peripheralctl ports lists what there is"},
    {ErrorCode::PortNotSerial, "port-not-serial",
     "what the port's name stands for is no serial port",
     "name the serial device, such as /dev/ttyUSB0"},
    {ErrorCode::PortForbidden, "port-forbidden",
     "the user may not open the port",
     "do what the message says; mostly, have the user added to the group of the device and log in again"},
    {ErrorCode::PortBusy, "port-busy",
     "another program uses the port",
     "close it; peripheralctl ports names it"},
    {ErrorCode::PortUnusable, "port-unusable",
     "the port could not be opened or set up",
     "check the adapter and the speed"},
    {ErrorCode::PortLost, "port-lost",
     "the port was lost during the update",
     "plug the adapter in again, check its cable, and repeat the update"},
    {ErrorCode::ModuleNotLoadable, "module-not-loadable",
     "the module's library cannot be used",
     "name the right library with --module"},
    {ErrorCode::PrepareFailed, "prepare-failed",
     "the module refused to prepare",
     "correct what its log names"},
    {ErrorCode::DeviceSilent, "device-silent",
     "the device did not say what was expected in time",
     "check that it has power, is in its bootloader and that the line is wired"},
    {ErrorCode::CommandRefused, "command-refused",
     "the device answered a command with something else than 000",
     "check addresses and files; the answer is the bootloader's"},
    {ErrorCode::TransferCancelled, "transfer-cancelled",
     "the device cancelled a transfer",
     "check that the file fits the device, and repeat the update"},
    {ErrorCode::TooManyNaks, "too-many-naks",
     "the device rejected a block again and again",
     "check the cable, the ground and the speed"},
    {ErrorCode::LineGarbled, "line-garbled",
     "the line brought what no device sends",
     "check the cable, the speed, and that nothing else talks on the line"},
    {ErrorCode::Stalled, "stalled",
     "the update made no progress for 40 s",
     "check the cable and the speed; a slow line may be too slow for the file"},
    {ErrorCode::UpdateFailed, "update-failed",
     "the update failed",
     "see the reasons; --log-level info shows what happened"},
    {ErrorCode::Aborted, "aborted",
     "a signal asked for the end",
     "run the update again"},
    {ErrorCode::NoResult, "no-result",
     "the module gave no sign of life in time",
     "check the port and the device; --timeout allows for more time"},
    // clang-format on
};

}  // namespace

const std::vector<ErrorDescription>& ErrorDescriptions() {
  return kDescriptions;
}

const ErrorDescription& Describe(ErrorCode code) {
  return ErrorDescriptions().at(static_cast<std::size_t>(code));
}

}  // namespace host
