#pragma once

#include <chrono>
#include <mutex>
#include <optional>

#include "LineObserver.h"

namespace host {

/// What the line has to say of the device since its port was opened.
struct Hearing {
  enum class Kind {
    Unknown,     ///< no port was opened that could be listened to
    Nothing,     ///< nothing was heard at all
    FellSilent,  ///< the device spoke, and has not done so for long
    Speaks       ///< it still speaks
  };

  Kind kind = Kind::Unknown;
  std::chrono::seconds silence{0};  ///< of a device that fell silent
};

/// Listens to the serial lines for as long as it lives, since the module's log does not tell whether a device
/// says anything at all. Any thread.
class LineEar final : public platform::ILineObserver {
 public:
  LineEar() : iFormer(platform::SetLineObserver(this)) {}
  LineEar(const LineEar&) = delete;
  LineEar& operator=(const LineEar&) = delete;
  ~LineEar() override { platform::SetLineObserver(iFormer); }

  /// The device of the port that was opened last, as it is at that time.
  Hearing Hear(std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

  /// A port was opened, and no port has sent a block yet: every device is as it was.
  bool KnowsThatNothingWasWritten();

  void OnOpened(const std::string& name, TUint32 speed) override;
  void OnSent(const TUint8* bytes, std::size_t count) override;
  void OnReceived(const TUint8* bytes, std::size_t count) override;
  void OnLost(const std::string& /*reason*/) override {}
  void OnClosed() override {}

 private:
  platform::ILineObserver* const iFormer;
  std::mutex iMutex;
  bool iIsOpened = false;
  bool iHasSentBlock = false;
  std::optional<std::chrono::steady_clock::time_point> iHeardAt;  ///< on the present port
};

}  // namespace host
