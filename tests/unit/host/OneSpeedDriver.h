#pragma once

/// A driver that knows one speed only. While one lives, the process is told of it whichever speed it has set.
class OneSpeedDriver {
 public:
  explicit OneSpeedDriver(unsigned speed);
  OneSpeedDriver(const OneSpeedDriver&) = delete;
  OneSpeedDriver& operator=(const OneSpeedDriver&) = delete;
  ~OneSpeedDriver();
};
