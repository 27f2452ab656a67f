#pragma once

#include <string>

#include "XModemSwl.h"

/// The upload to a Sanyo device: its image in one XMODEM transfer, without any command or answer. 150 steps,
/// of which a complete upload spends 151.
class CSanyoXModemSwl : public CXModemSwl {
 public:
  /// Makes a session; the caller deletes it. `engine` belongs to the session.
  static CSanyoXModemSwl* Create(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                                 const std::string& imageFile);
  using TCreate = CSanyoXModemSwl* (*)(IXModem*, IEventBroker&, ILoaderCallback&, const std::string&);

  CSanyoXModemSwl(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                  const std::string& imageFile);
  ~CSanyoXModemSwl() override;

  void Upload() override;
};
