#include "CanXModemSwl.h"

#include "Logging.h"

namespace {

// What the sequence's parts are worth: version 1, a file with its command 2 more than the file, a command 2.
constexpr TInt32 KTotalSteps = 145;
constexpr TInt32 KLoaderWeight = 8;
constexpr TInt32 KImageWeight = 128;

constexpr char KWrite[] = "wr ";
constexpr char KGoTo[] = "gt ";
constexpr char KCheck[] = "ck ";

}  // namespace

CCanXModemSwl* CCanXModemSwl::Create(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                                     const std::string& loaderFile, const std::string& imageFile,
                                     const std::string& ramAddress, const std::string& flashAddress) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  return new CCanXModemSwl(engine, eventBroker, callback, loaderFile, imageFile, ramAddress, flashAddress);
}

CCanXModemSwl::CCanXModemSwl(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                             const std::string& loaderFile, const std::string& imageFile,
                             const std::string& ramAddress, const std::string& flashAddress)
    : CXModemSwl(engine, eventBroker, callback, imageFile),
      iSourceLoader(loaderFile),
      iSourceImage(imageFile),
      iRamAddress(ramAddress),
      iFlashAddress(flashAddress) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

CCanXModemSwl::~CCanXModemSwl() {
  JoinWorker();
}

void CCanXModemSwl::Upload() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  StartSteps(KTotalSteps);
  Finish(RunSequence());
}

TBool CCanXModemSwl::RunSequence() {
  if (!ReceiveAndCheckVersion() || !CommandWithFile(KLoaderWeight, KWrite + iRamAddress, iSourceLoader) ||
      !Command(KGoTo + iRamAddress)) {
    return EFalse;
  }
  LOG_ALWAYS(logging::PeripheralLoader, "SWL: Started uploading using CanXModem");
  if (!CommandWithFile(KImageWeight, KWrite + iFlashAddress, iSourceImage) ||
      !Command(KCheck + iFlashAddress)) {  // GCOVR_EXCL_BR_LINE: the compiler's own, to destroy the texts
    return EFalse;
  }
  LOG_ALWAYS(logging::PeripheralLoader, "SWL: Finished uploading using CanXModem");
  return ETrue;
}
