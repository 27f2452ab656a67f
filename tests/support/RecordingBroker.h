#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "IEventBroker.h"
#include "IFeatureProperties.h"
#include "IInterfaceBroker.h"

/// A broker that delivers nothing by itself: it writes every call down, payloads copied.
class RecordingBroker : public IEventBroker {
 public:
  struct Call {
    enum Kind { kSubscribe, kUnsubscribe, kPost } kind;
    std::uint32_t type;
    std::uint32_t id;
    std::uint32_t length;
    const void* data;          ///< as it was passed; do not follow it
    IEventObserver* observer;  ///< null for a post
    std::string payload;       ///< of a post
  };

  void Subscribe(const TEvent& filter, IEventObserver& observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
  void Post(const TEvent& event) override;

  const std::vector<Call>& Calls() const { return iCalls; }

  /// "subscribe 3/201", "unsubscribe 0/0", "post 3/204 flag 1", "post 3/205 50 %", "post 3/200 <id>": calls
  /// in short.
  std::vector<std::string> Summary() const;

  /// Called for each post, after it was written down; for a controller that answers at once.
  void OnPost(std::function<void(const Call&)> handler) { iOnPost = std::move(handler); }

  void Clear() { iCalls.clear(); }

 private:
  std::vector<Call> iCalls;
  std::function<void(const Call&)> iOnPost;
};

/// Properties from a list. Remembers which keys were asked for, and for which feature.
class FakeProperties : public IFeatureProperties {
 public:
  TBool Get(const TFeatureId& featureId, const std::string& key, std::string& value) const override;

  void Set(const std::string& key, const std::string& value);
  void Remove(const std::string& key);

  mutable std::vector<std::string> asked;         ///< keys, in order
  mutable std::vector<TFeatureId> askedFeatures;  ///< features, in order

 private:
  std::vector<std::pair<std::string, std::string>> iValues;
};

/// The registry that nobody asks for anything.
class FakeInterfaceBroker : public IInterfaceBroker {};
