#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "RecordingBroker.h"

/// What happened, in order, whoever did it: one list for log lines, broker calls and whatever fakes note. Any
/// thread may write to it.
class Journal {
 public:
  void Note(std::string entry) {
    const std::lock_guard<std::mutex> lock(iMutex);
    iEntries.push_back(std::move(entry));
  }

  /// The entries since the last call.
  std::vector<std::string> Take() {
    const std::lock_guard<std::mutex> lock(iMutex);
    return std::exchange(iEntries, {});
  }

 private:
  std::mutex iMutex;
  std::vector<std::string> iEntries;
};

/// The last `count` entries, or all if there are fewer.
inline std::vector<std::string> LastOf(const std::vector<std::string>& entries, std::size_t count) {
  return {entries.end() - static_cast<std::ptrdiff_t>(std::min(count, entries.size())), entries.end()};
}

/// Notes every log line as "Interface CXModem::SendPacket ()".
class JournalLog : public LogCapture {
 public:
  explicit JournalLog(Journal& journal) : iJournal(journal) {}

  void Write(const logging::TLine& line) override {
    LogCapture::Write(line);
    iJournal.Note(Trace().back());
    Clear();
  }

 private:
  Journal& iJournal;
};

/// Notes every call in the short form of RecordingBroker::Summary, before a controller answers to it.
class JournalBroker : public RecordingBroker {
 public:
  explicit JournalBroker(Journal& journal) : iJournal(journal) {
    OnPost([](const Call&) {});
  }

  void Subscribe(const TEvent& filter, IEventObserver& observer) override {
    RecordingBroker::Subscribe(filter, observer);
    iJournal.Note(Summary().back());
  }

  void Unsubscribe(const TEvent& filter, IEventObserver& observer) override {
    RecordingBroker::Unsubscribe(filter, observer);
    iJournal.Note(Summary().back());
  }

  /// In place of RecordingBroker::OnPost.
  void OnPost(std::function<void(const Call&)> handler) {
    RecordingBroker::OnPost([this, handler = std::move(handler)](const Call& call) {
      iJournal.Note(Summary().back());
      handler(call);
    });
  }

 private:
  Journal& iJournal;
};

/// Notes every question as "get <feature> <key>", and what its answer was to replace if that was not empty.
class JournalProperties : public FakeProperties {
 public:
  explicit JournalProperties(Journal& journal) : iJournal(journal) {}

  TBool Get(const TFeatureId& featureId, const std::string& key, std::string& value) const override {
    iJournal.Note("get " + featureId + " " + key + (value.empty() ? "" : " in place of " + value));
    return FakeProperties::Get(featureId, key, value);
  }

 private:
  Journal& iJournal;
};
