// The engine alone: packet building, CRC, the receive path. In bytes of payload per second.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "MemoryPort.h"
#include "XModem.h"

namespace {

constexpr int KPackets = 64;

std::vector<TUint8> Data(std::size_t size) {
  std::vector<TUint8> data(size);
  for (std::size_t i = 0; i < size; ++i) {
    data[i] = static_cast<TUint8>(i * 131 + i / 7);
  }
  return data;
}

void CountBytes(benchmark::State& state, std::size_t perTurn) {
  state.SetBytesProcessed(static_cast<std::int64_t>(perTurn) * state.iterations());
}

void Crc(benchmark::State& state) {
  const std::vector<TUint8> data = Data(simulator::kLongBlock);
  for (auto _ : state) {
    TUint16 crc = 0;
    for (const TUint8 byte : data) {
      crc = CXModem::CalculateCrcByte(byte, crc);
    }
    benchmark::DoNotOptimize(crc);
  }
  CountBytes(state, data.size());
}
BENCHMARK(Crc);

void Packet(benchmark::State& state) {
  const std::vector<TUint8> data = Data(simulator::kLongBlock);
  CWillingReceiver port;
  CXModem engine(&port);
  for (auto _ : state) {
    if (engine.SendPacket(data.data(), static_cast<TUint32>(data.size())) != IXModem::EXModemOk) {
      state.SkipWithError("a packet was not sent");
    }
  }
  CountBytes(state, data.size());
}
BENCHMARK(Packet);

void Receive(benchmark::State& state) {
  std::vector<TUint8> received(KPackets * simulator::kLongBlock);
  for (auto _ : state) {
    CReadySender port(Data(simulator::kLongBlock), KPackets);
    CXModem engine(&port);
    TInt32 count = 0;
    if (engine.ReceiveBuffer(received.data(), static_cast<TInt32>(received.size()), &count) !=
            IXModem::EXModemOk ||
        static_cast<std::size_t>(count) != received.size()) {
      state.SkipWithError("not everything was received");
    }
  }
  CountBytes(state, received.size());
}
BENCHMARK(Receive);

}  // namespace

BENCHMARK_MAIN();
