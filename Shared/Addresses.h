// The product's addresses, all of them.
#pragma once

#include <string_view>

namespace Gantrel_Sync_Helper::Addresses {

// Why the agent has no bundle identifier of its own to give.
inline constexpr std::string_view agentIdentifierIssue = "https://gantrel.example/issues/73";

inline constexpr std::string_view helpCenter = "https://gantrel.example/help";
inline constexpr std::string_view feedbackAndSupport = "https://gantrel.example/feedback";
inline constexpr std::string_view supportMail = "support@gantrel.example";

}  // namespace Gantrel_Sync_Helper::Addresses
