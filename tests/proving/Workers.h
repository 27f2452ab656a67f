#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Campaign.h"

namespace proving {

/// The outcome of a campaign.
struct CampaignResult {
  Tally tally;
  std::vector<std::string> brokenIds;  ///< the first of them
  std::vector<std::string> deaths;     ///< ids at which a process died or stood still
};

/// Runs the scenarios `idOf(0)` to `idOf(count - 1)` on so many processes and adds up what they have seen. A
/// process that dies, or that stays with one run for longer than any run takes, is reported with that run.
CampaignResult RunCampaign(std::uint64_t count, const std::function<std::string(std::uint64_t)>& idOf,
                           unsigned processes);

}  // namespace proving
