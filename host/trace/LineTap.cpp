#include "trace/LineTap.h"

namespace host::trace {

// Between taking the lines and knowing who had them nothing crosses one: the module is asked for nothing yet.
template <typename Call>
void LineTap::Pass(Call call) {
  if (platform::ILineObserver* const former = iFormer) {
    call(*former);
  }
}

void LineTap::OnOpened(const std::string& name, TUint32 speed) {
  Pass([&](auto& former) { former.OnOpened(name, speed); });
}

void LineTap::OnSent(const TUint8* bytes, std::size_t count) {
  Pass([&](auto& former) { former.OnSent(bytes, count); });
}

void LineTap::OnReceived(const TUint8* bytes, std::size_t count) {
  Pass([&](auto& former) { former.OnReceived(bytes, count); });
}

void LineTap::OnLost(const std::string& reason) {
  Pass([&](auto& former) { former.OnLost(reason); });
}

void LineTap::OnClosed() {
  Pass([&](auto& former) { former.OnClosed(); });
}

}  // namespace host::trace
