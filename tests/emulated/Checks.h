// A tiny test frame for a machine that has nothing but a console.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace emulated {

/// What one case has found wrong so far.
class Check {
 public:
  /// Notes a complaint about `what` unless both are equal. Texts and numbers.
  template <typename Actual, typename Expected>
  void Equal(const std::string& what, const Actual& actual, const Expected& expected) {
    if (actual != expected) {
      std::ostringstream text;
      text << what << " is [" << actual << "], expected [" << expected << "]";
      iComplaints.push_back(text.str());
    }
  }

  /// Notes a complaint unless `holds`.
  void That(const std::string& what, bool holds) {
    if (!holds) {
      iComplaints.push_back("not so: " + what);
    }
  }

  const std::vector<std::string>& Complaints() const { return iComplaints; }

 private:
  std::vector<std::string> iComplaints;
};

/// A case: a name that is a promise, and the code that tries it.
struct Case {
  const char* name;
  void (*run)(Check&);
};

/// Runs the cases in order and prints "PASS name" or "FAIL name: why" for each, then the line
/// "RESULT: n passed, m failed". Returns the number that failed.
int RunAll(const std::vector<Case>& cases);

}  // namespace emulated
