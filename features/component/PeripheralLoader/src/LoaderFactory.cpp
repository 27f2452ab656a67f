#include "LoaderFactory.h"

#include <algorithm>

#include "CanXModemLoader.h"
#include "CanXModemSwl.h"
#include "ISerialPort.h"
#include "IXModem.h"
#include "Logging.h"
#include "SanyoXModemLoader.h"
#include "SanyoXModemSwl.h"

void CLoaderFactory::Create(const std::string& updateList, std::vector<ILoader*>& loaders,
                            TFeatureId& featureId, IEventBroker& eventBroker,
                            const IFeatureProperties& properties, ILoaderCallback& callback) {
  std::string::size_type start = 0;
  while (start < updateList.size()) {
    const std::string::size_type end = std::min(updateList.find(';', start), updateList.size());
    const std::string entry = updateList.substr(start, end - start);
    if (entry == "xmodem") {
      LOG_INFO(logging::PeripheralLoader, "Added Can xmodem loader: " << entry);
      loaders.push_back(new CCanXModemLoader(featureId, eventBroker, properties, callback,
                                             ISerialPort::Create, IXModem::Create, CCanXModemSwl::Create));
    } else if (entry == "sanyoxmodem") {
      LOG_INFO(logging::PeripheralLoader, "Added Sanyo xmodem loader: " << entry);
      loaders.push_back(new CSanyoXModemLoader(featureId, eventBroker, properties, callback,
                                               ISerialPort::Create, IXModem::Create,
                                               CSanyoXModemSwl::Create));
    } else {
      LOG_ERROR(logging::PeripheralLoader, "Unknown peripheral found and ignored: " << entry);
    }
    start = end + 1;
  }
}
