// The user's private runtime directory: where sockets and check-ins of this user's processes live.
//
// It is $XDG_RUNTIME_DIR, else /run/user/UID, and is taken only when it is a directory (not a
// symbolic link) that belongs to this user and that nobody else can enter. The system's own folder
// below it, "gantrel", is made with the same rights when it is missing.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Platform {

// The path of <runtime>/gantrel, or of the folder `below` in it, made when missing. None without a
// runtime directory, with one that is not this user's own, or when the folder cannot be made
// safely. Reads the environment at each call. Any thread.
std::optional<std::string> runtimeDirectory(std::string_view below = {});

// Why runtimeDirectory gives none, with what mends it, as a sentence for people, without a final
// full stop and not escaped; empty when it gives a path.
std::string runtimeDirectoryProblem(std::string_view below = {});

}  // namespace Platform
