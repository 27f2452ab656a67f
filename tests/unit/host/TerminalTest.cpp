// Goal: what waits for room on standard output is written when its one thread says so, never because another
// thread tells something on standard error. Method: standard output is a file whose position shows what came.
#include "Terminal.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>

namespace {

TEST(PatientOutput, IsNotFlushedByWhatIsLoggedOnStandardError) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::ostream* const tied = std::cerr.tie();
  {
    const host::PatientOutput output;
    const host::PatientErrors errors;
    std::cout << "held";
    std::cerr << "logged";
    EXPECT_EQ(lseek(STDOUT_FILENO, 0, SEEK_CUR), 0);
  }
  EXPECT_EQ(std::cerr.tie(), tied);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "logged");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "held");
}

}  // namespace
