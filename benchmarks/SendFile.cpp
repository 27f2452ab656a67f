// Sends one file with the module's engine through the platform's serial port, and prints what that cost this
// process. The other end is a paced-receiver.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "ISerialPort.h"
#include "IXModem.h"

namespace {

class Silent : public IXModemCallback {
 public:
  void IXModemProgress(TInt32 /*remaining*/, TInt32 /*total*/) override {}
};

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void PrintCost(int result, double wall_s) {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "{\"result\": %d, \"wall_s\": %.6f, \"user_s\": %.6f, \"system_s\": %.6f, \"waits\": %ld, "
      "\"preemptions\": %ld, \"peak_rss_kib\": %ld}\n",
      result, wall_s, Seconds(usage.ru_utime), Seconds(usage.ru_stime), usage.ru_nvcsw, usage.ru_nivcsw,
      usage.ru_maxrss);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s PORT BAUD FILE\nSends FILE as one XMODEM transfer; see paced-receiver.\n",
                 argv[0]);
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  ISerialPort* const port = ISerialPort::Create(AsTChr(argv[1]), std::atoi(argv[2]), EFalse, EFalse);
  if (port == nullptr) {
    return 2;
  }
  const std::unique_ptr<IXModem> engine(IXModem::Create(port));
  Silent callback;
  const IXModem::TXModemError result = engine->SendFile(AsTChr(argv[3]), callback);
  PrintCost(result, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  return result == IXModem::EXModemOk ? 0 : 1;
}
