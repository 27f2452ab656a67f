#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "IEventBroker.h"
#include "IFeatureModule2.h"
#include "IFeatureProperties.h"
#include "RecordingBroker.h"

/// A broker without a thread: whoever holds it delivers what is due, with ticks when it likes.
class PumpedBroker : public IEventBroker {
 public:
  void Subscribe(const TEvent& filter, IEventObserver& observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
  void Post(const TEvent& event) override;

  /// Delivers everything that was posted.
  void DeliverPosts();
  /// Gives every timer a tick.
  void Tick();

  std::size_t Subscriptions() const { return iSubscriptions.size(); }
  /// Whether nobody but the thread that made the broker has called it.
  bool CalledOnOneThread() const { return iCalledOnOneThread; }

 private:
  struct Subscription {
    TEvent filter;
    IEventObserver* observer;
  };
  struct Posted {
    TUint32 type;
    TUint32 id;
    std::string payload;
  };

  std::vector<Subscription>::iterator Find(const TEvent& filter, const IEventObserver& observer);
  void Deliver(const TEvent& event);
  void NoteThread();

  std::vector<Subscription> iSubscriptions;
  std::deque<Posted> iPosts;
  const std::thread::id iThread = std::this_thread::get_id();
  bool iCalledOnOneThread = true;
};

/// What a host was told about one update.
struct Told {
  std::optional<bool> prepared;  ///< 202
  int results = 0;               ///< how often 204
  bool success = false;          ///< what the last of them said
  bool progressFell = false;

  bool Succeeded() const { return prepared == true && results == 1 && success; }
};

/// A host with the module as its factory function makes it, on the thread that makes it.
class UpdatingHost : private IEventObserver {
 public:
  explicit UpdatingHost(const IFeatureProperties& properties);
  ~UpdatingHost() override;
  UpdatingHost(const UpdatingHost&) = delete;
  UpdatingHost& operator=(const UpdatingHost&) = delete;

  /// Prepares and installs. Returns when the result has come and a few ticks more have passed, or when none
  /// has come in time.
  Told Update();

  /// Deletes the module. Whether it has left nothing behind: no subscription, and no call from another
  /// thread.
  bool DeleteModule();

 private:
  void OnEvent(const TEvent& event) override;
  void TakeProgress(int percent);
  void Request(TUint32 id);
  template <typename TEnough>
  void Drive(TEnough enough);
  bool TickIsDue(std::int64_t last_us) const;

  const std::size_t iThreadsWithoutUpload;
  PumpedBroker iBroker;
  FakeInterfaceBroker iInterfaces;
  std::unique_ptr<IFeatureModule2> iModule;
  Told iTold;
  int iPercent = 0;
};
