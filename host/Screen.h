#pragma once

#include <mutex>
#include <ostream>
#include <sstream>
#include <string>

namespace host {

/// A terminal whose last line may be a bar that is redrawn in place. While there is one, everything that this
/// process writes to it comes by here, so that nothing runs into the bar. Any thread.
class Screen {
 public:
  /// The bar is drawn on `out`, which must outlive the screen.
  explicit Screen(std::ostream& out) : iOut(out) {}

  /// Writes whole lines to a stream that appears on the terminal, above the bar if there is one.
  void Print(std::ostream& stream, const std::string& lines);

  /// Draws the bar, in place of the one before.
  void ShowBar(const std::string& bar);

  /// Lets the bar stand as it is, and goes on below it.
  void LeaveBar();

 private:
  std::mutex iMutex;
  std::ostream& iOut;
  std::string iBar;  ///< empty when there is none
};

/// A stream onto a screen: what is written comes to it with the next flush, which must end a line. One thread
/// at a time.
class ScreenStream final : private std::stringbuf, public std::ostream {
 public:
  /// Both must outlive it.
  ScreenStream(Screen& screen, std::ostream& stream) : std::ostream(this), iScreen(screen), iStream(stream) {}

 private:
  int sync() override;

  Screen& iScreen;
  std::ostream& iStream;
};

}  // namespace host
