// What faults tell people.
#pragma once

#include <string>
#include <vector>

#include "Fault.h"

inline std::vector<std::string> Texts(const host::Faults& faults) {
  std::vector<std::string> texts;
  for (const host::Fault& fault : faults) {
    texts.push_back(fault.text);
  }
  return texts;
}
