#pragma once

/// The host's registry of further interfaces. It is passed to every feature; this one asks it for nothing.
class IInterfaceBroker {
 public:
  virtual ~IInterfaceBroker() = default;
};
