#include "Shared/URLs.h"

#include <gtest/gtest.h>

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
using enum URLs::ConnectionProtocol;

TEST(URLs, ConnectionProtocolIsTheWholeRawValueOrNone) {
  for (const auto scheme : {http, https}) {
    EXPECT_EQ(URLs::connectionProtocol(rawValue(scheme)), scheme);
  }
  EXPECT_EQ(rawValue(http), "http://"_text);
  EXPECT_EQ(rawValue(https), "https://"_text);
  for (const char* const other :
       {"", "http", "http:/", "HTTP://", " http://", "https://a.example"}) {
    EXPECT_EQ(URLs::connectionProtocol(Text::fromUtf8(other).value()), std::nullopt) << other;
  }
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
