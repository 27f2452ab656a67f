#include "LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

// "virtual TBool CXModemSwl::Command(const string&) [with T = int]" -> "CXModemSwl::Command"
std::string FunctionName(std::string signature) {
  signature.resize(std::min(signature.find('('), signature.size()));
  // A compiler may write the asterisk of a result at the name.
  const auto blank = signature.find_last_of(" *&");
  return blank == std::string::npos ? signature : signature.substr(blank + 1);
}

// Every room of the production code logs for its own module.
void ExpectItsOwnModule(const logging::TLine& line) {
  const std::string file = line.file;
  if (file.find("features/") == 0) {
    EXPECT_EQ(line.module, logging::PeripheralLoader) << file << ":" << line.line;
  } else if (file.find("SWLInfra/") == 0) {
    EXPECT_EQ(line.module, logging::SWLInfra) << file << ":" << line.line;
  }
}

std::string Text(const LogCapture::Line& line) {
  return std::string(logging::Name(line.level)) + " (" + line.message + ")";
}

}  // namespace

LogCapture::LogCapture() : iPrevious(logging::SetSink(this)) {
  logging::SetLowestLevel(logging::EInterface);
}

LogCapture::~LogCapture() {
  logging::SetSink(iPrevious);
  logging::SetLowestLevel(logging::EWarning);
}

void LogCapture::Write(const logging::TLine& line) {
  ExpectItsOwnModule(line);
  iLines.push_back({line.level, line.module, FunctionName(line.signature), line.file, line.line,
                    std::string(line.message)});
}

std::vector<std::string> LogCapture::Messages() const {
  return Messages(logging::EInterface);
}

std::vector<std::string> LogCapture::Messages(logging::TLevel lowest) const {
  std::vector<std::string> texts;
  for (const Line& line : iLines) {
    if (line.level >= lowest && !line.message.empty()) {
      texts.push_back(Text(line));
    }
  }
  return texts;
}

std::vector<std::string> LogCapture::Trace() const {
  std::vector<std::string> texts;
  for (const Line& line : iLines) {
    texts.push_back(std::string(logging::Name(line.level)) + " " + line.function + " (" + line.message + ")");
  }
  return texts;
}
