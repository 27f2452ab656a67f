#include "Checks.h"

#include <cstdio>

namespace emulated {

namespace {

bool Passes(const Case& tried) {
  Check check;
  tried.run(check);
  if (check.Complaints().empty()) {
    std::printf("PASS %s\n", tried.name);
  }
  for (const std::string& complaint : check.Complaints()) {
    std::printf("FAIL %s: %s\n", tried.name, complaint.c_str());
  }
  std::fflush(stdout);
  return check.Complaints().empty();
}

}  // namespace

int RunAll(const std::vector<Case>& cases) {
  int failed = 0;
  for (const Case& tried : cases) {
    failed += Passes(tried) ? 0 : 1;
  }
  std::printf("RESULT: %d passed, %d failed\n", static_cast<int>(cases.size()) - failed, failed);
  std::fflush(stdout);
  return failed;
}

}  // namespace emulated
