// Goal: what is written is read, and a trace that was cut or damaged anywhere is read up to there and says
// so. Method: a small trace, cut at each of its bytes, and with each of its bytes changed.
#include "trace/Record.h"

#include <gmock/gmock.h>

#include "Files.h"

namespace {

using namespace host::trace;
using testing::HasSubstr;

const std::vector<Record> kRecords = {
    {Kind::Start, 0, "a=b\n"},
    {Kind::Opened, 1, "9600 port"},
    {Kind::Sent, 300, std::string("C\0\xff", 3)},
    {Kind::Received, 70000, ""},
    {Kind::End, 1ULL << 40, "0 Done."},
};

std::string Written(std::size_t count = kRecords.size()) {
  std::string text = FileHeader();
  for (std::size_t i = 0; i < count; ++i) {
    text += Encode(kRecords[i]);
  }
  return text;
}

void ExpectFirst(const Trace& trace, std::size_t count) {
  ASSERT_EQ(trace.records.size(), count);
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_EQ(trace.records[i].kind, kRecords[i].kind);
    EXPECT_EQ(trace.records[i].time_us, kRecords[i].time_us);
    EXPECT_EQ(trace.records[i].payload, kRecords[i].payload);
  }
}

// How many records end at `size` bytes or before.
std::size_t CompleteAt(std::size_t size) {
  std::size_t count = 0;
  while (count < kRecords.size() && Written(count + 1).size() <= size) {
    ++count;
  }
  return count;
}

// The example of docs/TRACES.md.
TEST(TraceRecord, StandsInTheFileByteForByteAsDocumented) {
  EXPECT_EQ(FileHeader(), std::string("\x89PLT\r\n\x1a\n\x01\x00", 10));
  EXPECT_EQ(Encode({Kind::Sent, 258, "C"}), std::string(">\x01\0\0\0\x02\x01\0\0\0\0\0\0"
                                                        "C\x44\x89\xe9\x61",
                                                        18));
}

TEST(TraceRecord, IsReadAsItWasWritten) {
  const Trace trace = Decode(Written());
  EXPECT_EQ(trace.soundness, Soundness::Whole);
  EXPECT_EQ(trace.fault, "");
  ExpectFirst(trace, kRecords.size());
}

TEST(TraceRecord, OfATraceCutAnywhereIsReadIfItIsComplete) {
  const std::string whole = Written();
  for (std::size_t size = FileHeader().size() + 1; size < whole.size(); ++size) {
    const Trace trace = Decode(std::string_view(whole).substr(0, size));
    const std::size_t complete = CompleteAt(size);
    ExpectFirst(trace, complete);
    const bool between = Written(complete).size() == size;
    EXPECT_EQ(trace.soundness, between ? Soundness::Open : Soundness::Broken) << size;
    EXPECT_THAT(trace.fault,
                HasSubstr(between ? "has no end"
                                  : "breaks at byte " + std::to_string(Written(complete).size()) +
                                        ": the record there is cut off."));
  }
}

TEST(TraceRecord, OfNothingIsSaidToBeMissing) {
  const Trace trace = Decode(FileHeader());
  EXPECT_EQ(trace.soundness, Soundness::Open);
  EXPECT_EQ(trace.fault, "Nothing was recorded: the trace holds no record.");
}

TEST(TraceRecord, OfADamagedTraceIsReadUpToTheDamage) {
  const std::string whole = Written();
  for (std::size_t place = FileHeader().size(); place < whole.size(); ++place) {
    std::string damaged = whole;
    damaged[place] = static_cast<char>(damaged[place] ^ 0x40);
    const Trace trace = Decode(damaged);
    EXPECT_EQ(trace.soundness, Soundness::Broken) << place;
    ExpectFirst(trace, CompleteAt(place));
  }
}

TEST(TraceRecord, OfAnotherVersionOrAnotherFileIsNotRead) {
  std::string later = Written();
  later[8] = 2;
  EXPECT_EQ(Decode(later).soundness, Soundness::Foreign);
  EXPECT_EQ(Decode(later).fault, "The trace has version 2, and this program reads version 1.");
  for (const std::string& other : {std::string(), Written().substr(0, 9), std::string("[properties]\n")}) {
    EXPECT_EQ(Decode(other).soundness, Soundness::Foreign);
    EXPECT_EQ(Decode(other).fault, "This is no trace of peripheralctl.");
  }
}

TEST(TraceRecord, IsReadFromAFileWhichMayBeMissing) {
  const TemporaryFolder folder;
  ExpectFirst(ReadTrace(folder.Write("trace", Written())), kRecords.size());
  EXPECT_EQ(ReadTrace(folder.Path("none")).fault,
            "The file '" + folder.Path("none") + "' cannot be read: No such file or directory.");
  EXPECT_EQ(ReadTrace(folder.Write("empty", "")).soundness, Soundness::Foreign);
}

}  // namespace
