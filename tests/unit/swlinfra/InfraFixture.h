#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Journal.h"
#include "Lines.h"
#include "LogCapture.h"
#include "RecordingTools.h"
#include "SystemCalls.h"
#include "VirtualClock.h"

/// What the infrastructure does, in order: command lines as "$ sync", sleeps as "sleep 500000", and log lines
/// as "Error (text)", entry lines with the function before the text. The shell is real.
class InfraFixture : public testing::Test, private virtual_clock::IWorldClock {
 protected:
  InfraFixture() : iLog(iJournal) {
    virtual_clock::Reset();
    virtual_clock::SetWorld(this);
    system_calls::Reset();
    system_calls::OnCall([this](const std::string& command) { iJournal.Note("$ " + command); });
  }
  ~InfraFixture() override {
    system_calls::Reset();
    virtual_clock::Reset();
  }

  /// What happened since the last call.
  Lines Take() { return iJournal.Take(); }

 private:
  class Log : public LogCapture {
   public:
    explicit Log(Journal& journal) : iJournal(journal) {}
    void Write(const logging::TLine& line) override {
      LogCapture::Write(line);
      const std::string name = line.level == logging::EInterface ? " " + Lines().back().function : "";
      iJournal.Note(logging::Name(line.level) + name + " (" + std::string(line.message) + ")");
      EXPECT_EQ(line.module, logging::SWLInfra);
    }

   private:
    Journal& iJournal;
  };

  std::uint64_t Now_ms() override { return virtual_clock::Now_ms(); }
  void Sleep_us(int us) override { iJournal.Note("sleep " + std::to_string(us)); }

  Journal iJournal;

 protected:
  Log iLog;
};

/// A command that fails, and the line about it.
inline Lines Failing(const std::string& command, int status) {
  return {"$ " + command, "Error ('" + command + "' exited, result=" + std::to_string(status) + ")"};
}

/// How tools see the command lines of a journal, in the form of RecordingTools::Take.
inline Lines AsCalls(const Lines& journal) {
  Lines calls;
  for (const std::string& entry : journal) {
    if (entry.find("$ ") == 0) {
      std::istringstream words(entry.substr(2));
      std::string call;
      words >> call;
      for (std::string word; words >> word;) {
        call += "|" + word;
      }
      calls.push_back(call);
    }
  }
  return calls;
}
