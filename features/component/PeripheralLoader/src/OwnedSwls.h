#pragma once

#include <vector>

/// The upload sessions that a loader has started. A session that a further install replaces must stay alive,
/// since that install may come from inside one of its calls; so all of them are kept and deleted together,
/// oldest first.
template <typename TSwl>
class COwnedSwls {
 public:
  COwnedSwls() = default;
  COwnedSwls(const COwnedSwls&) = delete;
  COwnedSwls& operator=(const COwnedSwls&) = delete;

  ~COwnedSwls() {
    for (const TSwl* swl : iSwls) {
      delete swl;
    }
  }

  /// Takes the session, which may be null, and returns it.
  TSwl* Own(TSwl* swl) {
    iSwls.push_back(swl);
    return swl;
  }

 private:
  std::vector<TSwl*> iSwls;
};
