// The folder of check-ins, in which any process of this user may have put anything.
//
// The input is a list of entries: a byte for what is there, a byte for the length of the name, and
// the name.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Fuzz/Require.h"
#include "Platform/Workspace/CheckIns.h"

using namespace Platform;

namespace {

const std::string& folder() {
  // Never destroyed: it is removed as the last thing.
  static const std::string* const made = [] {
    char path[] = "/tmp/gantrel-fuzz-XXXXXX";
    require(::mkdtemp(path) != nullptr);
    std::atexit([] { std::filesystem::remove_all(folder()); });
    return new std::string(path);
  }();
  return *made;
}

// A name of the right form is rare among random ones.
std::string nameOf(const std::string& bytes, bool isWellFormed) {
  return isWellFormed ? bytes + "@0123456789abcdef0123456789abcdef" : bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (std::size_t at = 0; at + 2 <= size;) {
    const std::uint8_t kind = data[at];
    const std::size_t length = std::min<std::size_t>(data[at + 1], size - at - 2);
    const std::string name =
        nameOf({reinterpret_cast<const char*>(data) + at + 2, length}, (kind & 1) != 0);
    at += 2 + length;
    if (const auto identifier = CheckIns::bundleIdentifierOf(name)) {
      require(Text::isUtf8(identifier->utf8()) && name.find('/') == std::string::npos);
    }
    if (name.find('/') != std::string::npos) continue;
    const std::string path = folder() + "/" + name;
    std::error_code ignored;
    switch (kind >> 1 & 3) {
      case 0:
        ::close(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
        break;
      case 1:
        ::mkfifo(path.c_str(), 0600);
        break;
      case 2:
        std::filesystem::create_symlink("/dev/null", path, ignored);
        break;
      case 3:
        ::mkdir(path.c_str(), 0700);
        break;
    }
  }
  for (const std::string& name : CheckIns::names(folder())) {
    require(CheckIns::bundleIdentifierOf(name).has_value());
    require(CheckIns::presence(folder(), name) == CheckIns::Presence::gone);
  }
  // What does not count stays; the next input finds an empty folder.
  for (const auto& entry : std::filesystem::directory_iterator(folder())) {
    std::filesystem::remove_all(entry.path());
  }
  return 0;
}
