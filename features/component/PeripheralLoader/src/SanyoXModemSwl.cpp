#include "SanyoXModemSwl.h"

#include "Logging.h"

namespace {
// The image is worth them all; starting it costs one more, so that a complete upload ends one step below
// zero.
constexpr TInt32 KTotalSteps = 150;
}  // namespace

CSanyoXModemSwl* CSanyoXModemSwl::Create(IXModem* engine, IEventBroker& eventBroker,
                                         ILoaderCallback& callback, const std::string& imageFile) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  return new CSanyoXModemSwl(engine, eventBroker, callback, imageFile);
}

CSanyoXModemSwl::CSanyoXModemSwl(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                                 const std::string& imageFile)
    : CXModemSwl(engine, eventBroker, callback, imageFile) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

CSanyoXModemSwl::~CSanyoXModemSwl() {
  JoinWorker();
}

void CSanyoXModemSwl::Upload() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  StartSteps(KTotalSteps);
  LOG_ALWAYS(logging::PeripheralLoader, "SWL: Started uploading using SanyoXModem");
  const TBool sent = File(KTotalSteps, iFileName);
  if (sent != EFalse) {
    LOG_ALWAYS(logging::PeripheralLoader, "SWL: Finished uploading using SanyoXModem");
  }
  Finish(sent);
}
