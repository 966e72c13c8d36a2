#include "Shared/URLs.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

Text rawValue(URLs::ConnectionProtocol connectionProtocol) {
  return connectionProtocol == URLs::ConnectionProtocol::http ? "http://"_text : "https://"_text;
}

std::optional<URLs::ConnectionProtocol> URLs::connectionProtocol(const Text& raw) {
  for (const auto candidate : {ConnectionProtocol::http, ConnectionProtocol::https}) {
    if (raw == rawValue(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace Gantrel_Sync_Helper
