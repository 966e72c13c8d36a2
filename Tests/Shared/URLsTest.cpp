#include "Shared/URLs.h"

#include <gtest/gtest.h>

namespace Gantrel_Sync_Helper::URLsTests {

using namespace Platform;
using enum URLs::ConnectionProtocol;

TEST(URLs, ConnectionProtocolIsTheWholeRawValueOrNone) {
  EXPECT_EQ(URLs::connectionProtocol("http://"_text), http);
  EXPECT_EQ(URLs::connectionProtocol("https://"_text), https);
  for (const char* const other : {"", "http:/", "HTTP://", " http://", "https://a.example"}) {
    EXPECT_EQ(URLs::connectionProtocol(Text::fromUtf8(other).value()), std::nullopt) << other;
  }
}

}  // namespace Gantrel_Sync_Helper::URLsTests
