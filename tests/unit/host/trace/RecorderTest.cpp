// Goal: a recorder leaves a trace of the line and the log that loses nothing but what a full disk refuses.
// Method: the recorder on files of a temporary folder, told of bytes and lines directly.
#include "trace/Recorder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Files.h"

namespace {

using namespace host::trace;
using testing::HasSubstr;

const TUint8 kBytes[] = {'C', 0, 6};

std::vector<std::string> Lines(const Trace& trace) {
  std::vector<std::string> lines;
  for (const Record& record : trace.records) {
    lines.push_back(std::string(1, static_cast<char>(record.kind)) + record.payload);
  }
  return lines;
}

class CountingSink : public logging::ISink {
 public:
  void Write(const logging::TLine& /*line*/) override { ++iCount; }
  int iCount = 0;
};

void RecordSomething(Recorder& recorder) {
  recorder.Start("a=b\n");
  recorder.OnOpened("port", 9600);
  recorder.OnSent(kBytes, 1);
  recorder.OnReceived(kBytes, sizeof(kBytes));
  LOG_INFO(logging::PeripheralLoader, "text\n");
  LOG_INTERFACE(logging::PeripheralLoader, "left out");
  recorder.OnLost("hung up");
  recorder.OnClosed();
  recorder.Stop();
  LOG_ERROR(logging::Platform, "not recorded");
  recorder.End(6, "The update failed.");
}

TEST(TraceRecorder, WritesDownLineAndLogInTheirOrder) {
  const TemporaryFolder folder;
  CountingSink sink;
  logging::ISink* const former = logging::SetSink(&sink);
  Recorder recorder;
  EXPECT_EQ(recorder.OpenFile(folder.Path("trace")), "");
  recorder.KeepContent();
  RecordSomething(recorder);
  EXPECT_EQ(logging::SetSink(former), &sink);
  EXPECT_EQ(logging::LowestLevel(), logging::EWarning);
  EXPECT_EQ(sink.iCount, 2);

  const Trace trace = ReadTrace(folder.Path("trace"));
  EXPECT_EQ(trace.soundness, Soundness::Whole);
  EXPECT_THAT(Lines(trace), testing::ElementsAre("Sa=b\n", "O9600 port", ">C", std::string("<C\0\x06", 4),
                                                 "MInfo PeripheralLoader text\\x0a", "Lhung up", "C",
                                                 "E6 The update failed."));
  EXPECT_EQ(Lines(Decode(recorder.Content())), Lines(trace));
  EXPECT_EQ(recorder.Fault(), "");
}

TEST(TraceRecorder, HasEachRecordInTheFileAtOnce) {
  const TemporaryFolder folder;
  Recorder recorder;
  EXPECT_EQ(recorder.OpenFile(folder.Path("trace")), "");
  recorder.Start("");
  recorder.OnSent(kBytes, 1);
  EXPECT_EQ(ReadTrace(folder.Path("trace")).records.size(), 2U);
  EXPECT_EQ(ReadTrace(folder.Path("trace")).soundness, Soundness::Open);
  recorder.Stop();
}

TEST(TraceRecorder, MakesAFileForItsOwnerAloneAndFollowsNoLink) {
  const TemporaryFolder folder;
  Recorder recorder;
  EXPECT_EQ(recorder.OpenFile(folder.Path("trace")), "");
  struct stat status = {};
  ASSERT_EQ(stat(folder.Path("trace").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  ASSERT_EQ(symlink(folder.Path("trace").c_str(), folder.Path("link").c_str()), 0);
  EXPECT_EQ(Recorder().OpenFile(folder.Path("link")),
            "cannot write the trace '" + folder.Path("link") +
                "': it is a symbolic link. Choose another file after --trace.");
}

TEST(TraceRecorder, TakesFromAnOldFileItsContentAndItsReaders) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("trace", "old");
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  EXPECT_EQ(Recorder().OpenFile(path), "");
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_EQ(status.st_size, 0);
}

TEST(TraceRecorder, EndsWithTheEndThoughTheModuleGoesOn) {
  Recorder recorder;
  recorder.KeepContent();
  recorder.Start("");
  recorder.End(8, "No result in time.");
  const std::string whole = recorder.Content();
  recorder.OnSent(kBytes, sizeof(kBytes));
  LOG_INFO(logging::PeripheralLoader, "text");
  recorder.Stop();
  EXPECT_EQ(recorder.Content(), whole);
}

TEST(TraceRecorder, WritesToNoPipeAndToNobodyElsesFile) {
  const TemporaryFolder folder;
  const std::string pipe = folder.Path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(Recorder().OpenFile(pipe), testing::HasSubstr("': it is no regular file."));
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_THAT(Recorder().OpenFile(pipe), testing::HasSubstr("': it is no regular file."));
  close(reader);
  for (const char* device : {"/dev/ptmx", "/dev/zero"}) {
    EXPECT_THAT(Recorder().OpenFile(device), testing::HasSubstr("': it is no regular file."));
  }
  EXPECT_EQ(Recorder().OpenFile("/dev/null"), "");
  if (geteuid() == 0) {
    const std::string path = folder.Write("trace", "precious");
    ASSERT_EQ(chown(path.c_str(), 65534, 0), 0);
    EXPECT_THAT(Recorder().OpenFile(path), testing::HasSubstr("': it belongs to another user."));
    EXPECT_EQ(std::filesystem::file_size(path), 8U);
  }
}

TEST(TraceRecorder, TellsThatTheDiskIsFullAndGoesOn) {
  Recorder recorder;
  EXPECT_EQ(recorder.OpenFile("/dev/full"), "");
  recorder.KeepContent();
  RecordSomething(recorder);
  EXPECT_EQ(recorder.Fault(),
            "the trace '/dev/full' is incomplete: No space left on device. Is the disk full?");
  EXPECT_EQ(Decode(recorder.Content()).soundness, Soundness::Whole);
}

}  // namespace
