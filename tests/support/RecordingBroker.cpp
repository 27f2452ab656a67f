#include "RecordingBroker.h"

#include <algorithm>

#include "FeatureEvents.h"

namespace {

using Call = RecordingBroker::Call;

std::string PostDetail(const Call& call) {
  if (call.payload.size() == sizeof(TFeatureResultPayload)) {
    TFeatureResultPayload result;
    std::copy(call.payload.begin(), call.payload.end(), reinterpret_cast<char*>(&result));
    return "flag " + std::to_string(result.flag);
  }
  if (call.payload.size() == sizeof(TFeatureProgressPayload)) {
    return std::to_string(static_cast<unsigned char>(call.payload.back())) + " %";
  }
  return call.payload;
}

std::string Short(const Call& call) {
  const std::string event = std::to_string(call.type) + "/" + std::to_string(call.id);
  switch (call.kind) {
    case Call::kSubscribe:
      return "subscribe " + event;
    case Call::kUnsubscribe:
      return "unsubscribe " + event;
    case Call::kPost:
      break;
  }
  return "post " + event + " " + PostDetail(call);
}

}  // namespace

void RecordingBroker::Subscribe(const TEvent& filter, IEventObserver& observer) {
  iCalls.push_back({Call::kSubscribe, filter.type, filter.id, filter.length, filter.data, &observer, ""});
}

void RecordingBroker::Unsubscribe(const TEvent& filter, IEventObserver& observer) {
  iCalls.push_back({Call::kUnsubscribe, filter.type, filter.id, filter.length, filter.data, &observer, ""});
}

void RecordingBroker::Post(const TEvent& event) {
  const auto* bytes = static_cast<const char*>(event.data);
  const std::string payload = bytes == nullptr ? std::string() : std::string(bytes, event.length);
  iCalls.push_back({Call::kPost, event.type, event.id, event.length, event.data, nullptr, payload});
  if (iOnPost) {
    const Call call = iCalls.back();
    iOnPost(call);
  }
}

std::vector<std::string> RecordingBroker::Summary() const {
  std::vector<std::string> texts;
  std::transform(iCalls.begin(), iCalls.end(), std::back_inserter(texts), Short);
  return texts;
}

TBool FakeProperties::Get(const TFeatureId& featureId, const std::string& key, std::string& value) const {
  asked.push_back(key);
  askedFeatures.push_back(featureId);
  for (const auto& [knownKey, knownValue] : iValues) {
    if (knownKey == key) {
      value = knownValue;
      return ETrue;
    }
  }
  return EFalse;
}

void FakeProperties::Set(const std::string& key, const std::string& value) {
  Remove(key);
  iValues.emplace_back(key, value);
}

void FakeProperties::Remove(const std::string& key) {
  iValues.erase(
      std::remove_if(iValues.begin(), iValues.end(), [&](const auto& entry) { return entry.first == key; }),
      iValues.end());
}
