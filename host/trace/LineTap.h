#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "LineObserver.h"

namespace host::trace {

/// Listens to the serial lines in front of whoever did so before, who goes on being told. Who overrides a
/// call passes it on by this class's own. Any thread.
class LineTap : public platform::ILineObserver {
 public:
  void OnOpened(const std::string& name, TUint32 speed) override;
  void OnSent(const TUint8* bytes, std::size_t count) override;
  void OnReceived(const TUint8* bytes, std::size_t count) override;
  void OnLost(const std::string& reason) override;
  void OnClosed() override;

 protected:
  /// Begins to listen.
  void TakeLines() { iFormer = platform::SetLineObserver(this); }

  /// Ends that; not called without having begun, nor twice.
  void GiveLinesBack() { platform::SetLineObserver(iFormer); }

 private:
  template <typename Call>
  void Pass(Call call);

  std::atomic<platform::ILineObserver*> iFormer{nullptr};
};

}  // namespace host::trace
