// Sends or receives packets through the engine, with no line and no work but the engine's. What an
// instruction counter says of it, of one number of packets and of another, is what a packet costs;
// script/bench divides.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "IXModem.h"
#include "MemoryPort.h"

namespace {

constexpr std::size_t KBlock = 1024;

std::vector<TUint8> Data(std::size_t size) {
  std::vector<TUint8> data(size);
  for (TUint8& byte : data) {
    byte = static_cast<TUint8>(std::rand());
  }
  return data;
}

bool Send(std::size_t packets) {
  const std::vector<TUint8> data = Data(packets * KBlock);
  CWillingReceiver port;
  const std::unique_ptr<IXModem> engine(IXModem::Create(&port));
  return engine->SendBuffer(data.data(), static_cast<TInt32>(data.size())) == IXModem::EXModemOk;
}

bool Receive(std::size_t packets) {
  std::vector<TUint8> received(packets * KBlock);
  CReadySender port(Data(KBlock), static_cast<int>(packets));
  const std::unique_ptr<IXModem> engine(IXModem::Create(&port));
  TInt32 count = 0;
  return engine->ReceiveBuffer(received.data(), static_cast<TInt32>(received.size()), &count) ==
             IXModem::EXModemOk &&
         static_cast<std::size_t>(count) == received.size();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || std::atoi(argv[2]) < 1) {
    std::fprintf(stderr, "usage: %s send|receive PACKETS\n", argv[0]);
    return 2;
  }
  const auto packets = static_cast<std::size_t>(std::atoi(argv[2]));
  const bool done = std::strcmp(argv[1], "send") == 0 ? Send(packets) : Receive(packets);
  return done ? 0 : 1;
}
