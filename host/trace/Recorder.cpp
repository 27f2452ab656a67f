#include "trace/Recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace host::trace {

namespace {

std::string Text(const TUint8* bytes, std::size_t count) {
  return {reinterpret_cast<const char*>(bytes), count};
}

}  // namespace

std::string Recorder::OpenFile(const std::string& path) {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iFile.Open(path, kTraceFile);
}

void Recorder::Start(const std::string& description) {
  iStarted = true;
  Put(FileHeader());
  Append(Kind::Start, description);
  iFormerLevel = logging::LowestLevel();
  iFormerSink = logging::SetSink(this);
  logging::SetLowestLevel(std::min(iFormerLevel, logging::EInfo));
  TakeLines();
}

void Recorder::Stop() {
  if (!std::exchange(iStarted, false)) {
    return;
  }
  GiveLinesBack();
  logging::SetSink(iFormerSink);
  logging::SetLowestLevel(iFormerLevel);
}

void Recorder::End(int exitCode, const std::string& outcome) {
  Append(Kind::End, fmt::format("{} {}", exitCode, outcome));
}

std::string Recorder::Content() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iContent;
}

std::string Recorder::Fault() {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iFile.Fault();
}

void Recorder::OnOpened(const std::string& name, TUint32 speed) {
  Append(Kind::Opened, fmt::format("{} {}", speed, name));
  LineTap::OnOpened(name, speed);
}

void Recorder::OnSent(const TUint8* bytes, std::size_t count) {
  Append(Kind::Sent, Text(bytes, count));
  LineTap::OnSent(bytes, count);
}

void Recorder::OnReceived(const TUint8* bytes, std::size_t count) {
  Append(Kind::Received, Text(bytes, count));
  LineTap::OnReceived(bytes, count);
}

void Recorder::OnLost(const std::string& reason) {
  Append(Kind::Lost, reason);
  LineTap::OnLost(reason);
}

void Recorder::OnClosed() {
  Append(Kind::Closed, {});
  LineTap::OnClosed();
}

void Recorder::Write(const logging::TLine& line) {
  if (line.level >= logging::EInfo) {
    Append(Kind::Log, fmt::format("{} {} {}", logging::Name(line.level), logging::Name(line.module),
                                  logging::Printable(line.message)));
  }
  if (iFormerSink != nullptr) {
    iFormerSink->Write(line);
  }
}

// The time is taken where the order is settled, so that it never runs backwards in a trace.
void Recorder::Append(Kind kind, std::string payload) {
  const std::lock_guard<std::mutex> lock(iMutex);
  if (std::exchange(iEnded, iEnded || kind == Kind::End)) {
    return;
  }
  const auto time = std::chrono::steady_clock::now() - iBegin;
  const auto time_us = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
  Put(Encode({kind, static_cast<std::uint64_t>(time_us), std::move(payload)}));
}

void Recorder::Put(const std::string& bytes) {
  if (iKeepsContent) {
    iContent += bytes;
  }
  iFile.Write(bytes);
}

}  // namespace host::trace
