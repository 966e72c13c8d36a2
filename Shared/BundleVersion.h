// What a bundle says of its version. Each call reads the bundle again; none for a value that is
// missing or not text. Any thread.
#pragma once

#include <optional>

#include "Platform/Foundation/NSBundle.h"

namespace Gantrel_Sync_Helper {

// The version that users see, CFBundleShortVersionString.
std::optional<Platform::Text> bundleShortVersion(const Platform::NSBundle& bundle);

// The version of the build, CFBundleVersion.
std::optional<Platform::Text> bundleVersion(const Platform::NSBundle& bundle);

// "2.4.1 (311)", always of the running application, whichever bundle is asked; none when either
// part is.
std::optional<Platform::Text> appVersion(const Platform::NSBundle& bundle);

}  // namespace Gantrel_Sync_Helper
