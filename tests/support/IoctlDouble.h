#pragma once

#include <functional>

/// A driver with habits that a pseudo-terminal does not have. While one lives, it is told of each ioctl of
/// the process once the real driver has answered, and may change the answer.
class IoctlDouble {
 public:
  using Answer = std::function<void(unsigned long request, void* argument, int& result)>;

  explicit IoctlDouble(Answer answer);
  IoctlDouble(const IoctlDouble&) = delete;
  IoctlDouble& operator=(const IoctlDouble&) = delete;
  ~IoctlDouble();
};

/// A driver that knows one speed only: the process is told of it whichever speed it has set.
class OneSpeedDriver {
 public:
  explicit OneSpeedDriver(unsigned speed);

 private:
  bool iIsSet = false;
  IoctlDouble iDouble;
};
