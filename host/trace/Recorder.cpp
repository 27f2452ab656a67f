#include "trace/Recorder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace host::trace {

namespace {

constexpr mode_t kOwnerOnly = 0600;

std::string Text(const TUint8* bytes, std::size_t count) {
  return {reinterpret_cast<const char*>(bytes), count};
}

}  // namespace

Recorder::~Recorder() {
  if (iFile >= 0) {
    close(iFile);
  }
}

std::string Recorder::OpenFile(const std::string& path) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iFile = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kOwnerOnly);
  if (iFile < 0) {
    return fmt::format("cannot write the trace '{}': {}. Choose another file after --trace.", path,
                       errno == ELOOP ? "it is a symbolic link" : std::generic_category().message(errno));
  }
  iPath = path;
  return {};
}

void Recorder::Start(const std::string& description) {
  Put(FileHeader());
  Append(Kind::Start, description);
  iFormerLevel = logging::LowestLevel();
  iFormerSink = logging::SetSink(this);
  logging::SetLowestLevel(std::min(iFormerLevel, logging::EInfo));
  platform::SetLineObserver(this);
}

void Recorder::Stop() {
  platform::SetLineObserver(nullptr);
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
  return iFault;
}

void Recorder::OnOpened(const std::string& name, TUint32 speed) {
  Append(Kind::Opened, fmt::format("{} {}", speed, name));
}

void Recorder::OnSent(const TUint8* bytes, std::size_t count) {
  Append(Kind::Sent, Text(bytes, count));
}

void Recorder::OnReceived(const TUint8* bytes, std::size_t count) {
  Append(Kind::Received, Text(bytes, count));
}

void Recorder::OnLost(const std::string& reason) {
  Append(Kind::Lost, reason);
}

void Recorder::OnClosed() {
  Append(Kind::Closed, {});
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
  const auto time = std::chrono::steady_clock::now() - iBegin;
  const auto time_us = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
  Put(Encode({kind, static_cast<std::uint64_t>(time_us), std::move(payload)}));
}

// A file that refuses once gets nothing more: what would follow a gap is of no use.
void Recorder::Put(const std::string& bytes) {
  if (iKeepsContent) {
    iContent += bytes;
  }
  for (std::size_t put = 0; iFile >= 0 && put < bytes.size();) {
    const ssize_t count = write(iFile, bytes.data() + put, bytes.size() - put);
    if (count >= 0) {
      put += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      iFault = fmt::format("the trace '{}' is incomplete: {}. Is the disk full?", iPath,
                           std::generic_category().message(errno));
      close(iFile);
      iFile = -1;
    }
  }
}

}  // namespace host::trace
