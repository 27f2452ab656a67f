#pragma once

#include <string>

#include "XModemSwl.h"

/// The upload to a CAN controller: its bootloader announces its version, takes a loader program into RAM and
/// runs it; that one takes the image into flash and checks it. 145 steps.
class CCanXModemSwl : public CXModemSwl {
 public:
  /// Makes a session; the caller deletes it. `engine` belongs to the session. The addresses are passed to the
  /// bootloader as they are.
  static CCanXModemSwl* Create(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                               const std::string& loaderFile, const std::string& imageFile,
                               const std::string& ramAddress, const std::string& flashAddress);
  using TCreate = CCanXModemSwl* (*)(IXModem*, IEventBroker&, ILoaderCallback&, const std::string&,
                                     const std::string&, const std::string&, const std::string&);

  CCanXModemSwl(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                const std::string& loaderFile, const std::string& imageFile, const std::string& ramAddress,
                const std::string& flashAddress);
  ~CCanXModemSwl() override;

  void Upload() override;

 private:
  TBool RunSequence();

  std::string iSourceLoader;
  std::string iSourceImage;
  std::string iRamAddress;
  std::string iFlashAddress;
};
