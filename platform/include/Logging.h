/// @file
/// The platform's log: lines with a level, a module, the place they come from and a message.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "Types.h"

namespace logging {

/// Who writes a line.
enum TModule : TUint32 { PeripheralLoader, SWLInfra, Platform, Host };

/// What a line is for, from the most talkative up. Always is written whatever the lowest level is.
enum TLevel : TUint32 { EInterface, EInfo, EWarning, EError, EAlways };

/// One line of the log; everything it points at lives until Write returns.
struct TLine {
  TLevel level;              ///< what the line is for
  TModule module;            ///< who writes it
  const char* signature;     ///< the function, as the compiler spells it
  const char* file;          ///< its source file, as the repository names it
  TInt32 line;               ///< in that file
  std::string_view message;  ///< what it says, not yet printable
};

/// Where lines go. Write is never called by two threads at once and must not log itself.
class ISink {
 public:
  virtual ~ISink() = default;
  /// Takes one line, which lives until the return.
  virtual void Write(const TLine& line) = 0;
};

/// The level as a word, such as "Warning".
const char* Name(TLevel level);
/// The module as it is spelled above.
const char* Name(TModule module);

/// The text with its control characters, one byte or two in UTF-8, written as "\x0a" and the like: what a
/// device sent can then neither start a line nor steer a terminal.
std::string Printable(std::string_view text);

/// A line as text: level, module, signature, file and line, and the printable message between "(" and ")".
/// There is no line end.
std::string Format(const TLine& line);

/// Lines below `lowest` are dropped before their message is composed. Warning at first.
void SetLowestLevel(TLevel lowest);
/// What was set last.
TLevel LowestLevel();
/// Lines of this level are written.
bool IsOn(TLevel level);

/// Puts `sink` in the place of the present one and returns that one, which is not used any more after the
/// return. Null stands for standard error, where lines go at first. The sink stays the caller's.
ISink* SetSink(ISink* sink);

/// Hands a line to the sink. Any thread.
void Write(const TLine& line);

/// Composes a message. Integers of every size, bytes included, are written as decimal numbers; a null text as
/// nothing.
class CMessage {
 public:
  /// Adds a text.
  CMessage& operator<<(std::string_view text) {
    iText.append(text);
    return *this;
  }
  /// Adds a text, or nothing for null.
  CMessage& operator<<(const char* text) { return *this << std::string_view(text == nullptr ? "" : text); }
  /// Adds a platform string, or nothing for null.
  CMessage& operator<<(const TChr* text) { return *this << AsChar(text); }

  /// Adds a number.
  template <typename T, typename = std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>>>
  CMessage& operator<<(T number) {
    iText.append(std::to_string(+number));
    return *this;
  }

  /// What has been composed; valid until the next addition.
  std::string_view Text() const { return iText; }

 private:
  std::string iText;
};

/// Hands `line` to the sink with the message that `compose` puts together. Apart from the statement that
/// logs, so that a function is not slowed down by lines that it seldom writes.
template <typename TCompose>
[[gnu::cold, gnu::noinline]] void WriteComposed(TLine line, TCompose compose) {
  CMessage message;
  compose(message);
  line.message = message.Text();
  Write(line);
}

}  // namespace logging

// Logging needs macros for two things no function can do: the caller's place, and not evaluating the message
// of a level that is off. `message_` is what would follow a stream: "Sending command " << command.
#define LOG_WRITE(level_, module_, message_)                                             \
  logging::WriteComposed({level_, module_, __PRETTY_FUNCTION__, __FILE__, __LINE__, {}}, \
                         [&](logging::CMessage& composed_) { composed_ << message_; })
#define LOG_AT(level_, module_, message_)   \
  do {                                      \
    if (logging::IsOn(level_)) {            \
      LOG_WRITE(level_, module_, message_); \
    }                                       \
  } while (false)

/// Entry and exit of operations that others call.
#define LOG_INTERFACE(module_, message_) LOG_AT(logging::EInterface, module_, message_)
/// What happens.
#define LOG_INFO(module_, message_) LOG_AT(logging::EInfo, module_, message_)
/// What goes on all the same.
#define LOG_WARNING(module_, message_) LOG_AT(logging::EWarning, module_, message_)
/// What has failed.
#define LOG_ERROR(module_, message_) LOG_AT(logging::EError, module_, message_)
/// What is written whatever the lowest level is.
#define LOG_ALWAYS(module_, message_) LOG_WRITE(logging::EAlways, module_, message_)
