// What a polling loop is made of, a read that finds nothing and platSleep(0) after it, would keep a processor
// busy for as long as the wait lasts. So the read leaves word with its thread what it looked for, and the
// thread's next platSleep(0) sleeps until that is there.
#pragma once

/// Something that a thread polls.
class IPolled {
 public:
  /// Returns when there may be something to do for the thread that polls: at once after a poll that was not
  /// in vain, else when something has happened, after KLongestPause_ms at the latest.
  virtual void AwaitChange() = 0;

 protected:
  ~IPolled() = default;
};

/// How long one platSleep(0) takes at most. Whoever polls may be waiting for something else too, a deadline
/// or the order to stop, and learns of it so much later at most.
constexpr int KLongestPause_ms = 5;

/// The calling thread has just polled `polled`, which must live for as long as the thread does.
void HasPolled(IPolled* polled);
