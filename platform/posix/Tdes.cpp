#include <tdes>

void Tdes::SelfTest() const {
  // A text that lost its end must not be followed further than it was once described.
  if (strnlen(AsChar(iString), std::size_t{iLength} + 1) != iLength) {
    std::printf("\nAssertion failed (%s) in file %s, line %d\n", "strlen(iString)==iLength", "Tdes.cpp",
                __LINE__);
  }
}
