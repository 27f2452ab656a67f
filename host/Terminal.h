#pragma once

#include <array>
#include <ostream>
#include <streambuf>

#include "ProgressDisplay.h"

namespace host {

/// What standard output can show, by what it is and by the variables TERM and NO_COLOR.
Look LookOfStandardOutput();

/// How wide help may be: what the variable COLUMNS says, else the terminal's width, else 80.
int HelpColumns();

/// Sees to it that the descriptors of the standard streams are taken, so that nothing that is opened later, a
/// port for one, gets what is written there. Call it before anything is opened.
void HoldStandardStreams();

/// While it lives, what std::cout gets waits for room on standard output, also where another program that
/// shares it has set it not to wait. One thread at a time.
class PatientOutput final : private std::streambuf {
 public:
  PatientOutput();
  PatientOutput(const PatientOutput&) = delete;
  PatientOutput& operator=(const PatientOutput&) = delete;
  ~PatientOutput() override;

 private:
  int sync() override;
  int_type overflow(int_type letter) override;

  std::streambuf* const iBefore;
  std::array<char, 4096> iBytes = {};
};

/// The same for std::cerr and standard error, without a buffer. Any thread, since log lines may be written
/// there: meanwhile std::cerr does not flush std::cout.
class PatientErrors final : private std::streambuf {
 public:
  PatientErrors();
  PatientErrors(const PatientErrors&) = delete;
  PatientErrors& operator=(const PatientErrors&) = delete;
  ~PatientErrors() override;

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override;
  int_type overflow(int_type letter) override;

  std::streambuf* const iBefore;
  std::ostream* const iTiedBefore;
};

/// Whether nobody will ever read what is written there.
bool IsReaderGone(int descriptor);

/// Writes out what standard output holds back. False when something of all that was written to it is lost,
/// unless because its reader has gone.
bool FlushStandardOutput();

}  // namespace host
