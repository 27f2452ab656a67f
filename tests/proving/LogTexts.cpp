#include "LogTexts.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace proving {

namespace {

struct Line {
  logging::TLevel level;
  std::string_view pattern;  ///< '#' stands for a decimal number, '*' for any text
};

using logging::EAlways;
using logging::EError;
using logging::EInfo;
using logging::EInterface;
using logging::EWarning;

// All that the module and its file helpers may say while they prepare and install.
constexpr Line kLines[] = {
    {EInterface, ""},
    {EInfo, ""},
    // The module.
    {EInterface, "Event: #"},
    {EInterface, "UserEvent: #"},
    {EAlways, "SWL: Starting upload in PeripheralLoader"},
    {EInfo, "updatelist: *"},
    {EInfo, "Prepare result is #"},
    {EInterface, "RemainingSize: #, TotalSize: #"},
    {EInfo, "Calculated progress: #. Received progress: #"},
    {EInterface, "Successful: ETrue"},
    {EInterface, "Successful: EFalse"},
    {EAlways, "SWL: Finished upload in PeripheralLoader"},
    // Factory and loaders.
    {EInfo, "Added Can xmodem loader: xmodem"},
    {EInfo, "Added Sanyo xmodem loader: sanyoxmodem"},
    {EInfo, "CanXModemLoader"},
    {EInfo, "SanyoXModemLoader"},
    {EInfo, "All properties are ok"},
    {EInfo, "All properties are not ok"},
    {EError, "Invalid source image: *"},
    {EError, "Invalid source loader: *"},
    {EError, "Invalid serial port name: *"},
    {EError, "Error creating serialport * #"},
    {EError, "Error creating XModem"},
    {EError, "Error creating SanyoXModemLoader"},
    // Sessions.
    {EInfo, "Sending command *"},
    {EInfo, "Sending file *"},
    {EInfo, "Received answer *"},
    {EInfo, "Received version *"},
    {EError, "Error: #"},
    {EInterface, "Left # of #"},
    {EError, "Timeout in polling for status in XModemSwl"},
    {EAlways, "SWL: Started uploading using CanXModem"},
    {EAlways, "SWL: Finished uploading using CanXModem"},
    {EAlways, "SWL: Started uploading using SanyoXModem"},
    {EAlways, "SWL: Finished uploading using SanyoXModem"},
    // Engine.
    {EError, "Failed writing[#]. retVal = 2"},
    {EAlways, "Received serial port error!"},
    {EError, "The first packet did not have the right packet number"},
    {EError, "The checksum of the received packet is not correct"},
    {EError, "The packet received is duplicated"},
    {EError, "The packet received has a wrong sequence number"},
    {EError, "Invalid Checksum while receiving packet"},
    {EError, "Could not allocate memory for the buffer"},
    {EError, "The file * could not be opened"},
    {EWarning, "[Timeout] while waiting for startup character"},
    {EWarning, "Transmission canceled by the other side. CAN messages received"},
    {EInfo, "CRC mode is requested"},
    {EInfo, "No CRC mode is requested"},
    {EError, "Unexpected reply while waiting for startup character : #"},
    {EInfo, "Wait for reply"},
    {EError, "Too many NAKs has been received while processing the reply"},
    {EWarning, "The packet must be re-sent"},
    {EWarning, "[Timeout] while processing the reply"},
    {EWarning, "The packet must be re-transmitted. NAK received as reply"},
    {EWarning, "The transfer has been canceled by the other side of the communication"},
    {EError, "Wrong reply received:#"},
    {EWarning, "[Timeout] while finalizing the delivery"},
    {EError, "Too many NAKs received while finalizing the delivery"},
    {EWarning, "Transfer cancelled while finalizing the delivery"},
    {EError, "Wrong reply while finalizing the delivery"},
    {EWarning, "[Timeout] arrived while processing the first byte"},
    {EError, "EOT arrived while processing the first byte on the first packet"},
    {EWarning, "Transfer cancelled while processing the first byte"},
    {EError, "No valid packet arrived while processing the first byte"},
    // File helpers.
    {EInfo, "File size : #"},
};

std::size_t NumberLength(std::string_view text) {
  std::size_t length = !text.empty() && text[0] == '-' ? 1 : 0;
  while (length < text.size() && std::isdigit(static_cast<unsigned char>(text[length])) != 0) {
    ++length;
  }
  return length;
}

bool Matches(std::string_view pattern, std::string_view text) {
  while (!pattern.empty()) {
    if (pattern[0] == '*') {
      pattern.remove_prefix(1);
      for (std::size_t skipped = 0; skipped <= text.size(); ++skipped) {
        if (Matches(pattern, text.substr(skipped))) {
          return true;
        }
      }
      return false;
    }
    if (pattern[0] == '#') {
      const std::size_t length = NumberLength(text);
      if (length == 0) {
        return false;
      }
      text.remove_prefix(length);
    } else if (text.empty() || text[0] != pattern[0]) {
      return false;
    } else {
      text.remove_prefix(1);
    }
    pattern.remove_prefix(1);
  }
  return text.empty();
}

}  // namespace

bool IsKnownLine(logging::TLevel level, std::string_view message) {
  return std::any_of(std::begin(kLines), std::end(kLines),
                     [&](const Line& line) { return line.level == level && Matches(line.pattern, message); });
}

}  // namespace proving
