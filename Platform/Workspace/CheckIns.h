// Check-ins: how the processes of one user know of each other which applications run.
//
// Each running instance has a file in <runtime>/gantrel/applications/, named IDENTIFIER@UNIQUE, and
// holds a write lock on it. The lock belongs to the open file, so the kernel drops it when the
// process ends, however it ends: running means that the lock is held. The file is made and locked
// under a temporary name and then renamed, so that a final name that is found unlocked is an
// instance that has ended, at any time; whoever finds it removes it. UNIQUE is never used twice, so
// removing needs no lock. Whoever looks through the folder does so, and so does whoever checks in,
// within bounds: a launch leaves one file at most and removes several, so that they do not gather
// where nobody looks.
//
// IDENTIFIER is the bundle identifier with each byte other than ASCII letters, digits, '-', '_' and
// '.' written as %XX, and so a leading '.': any text becomes one file name, and those that begin
// with '.' are the temporary ones. A name takes up to 255 bytes, 33 of them for '@' and UNIQUE; an
// application with a longer identifier cannot check in.
//
// What counts is the lock on the name, whoever holds it:
// - A child that was forked and runs no other program shares the open file: the instance lasts
//   until the last such child has ended too. exec ends it, for the process itself as well.
// - A file that is removed or renamed by hand no longer counts, although its process runs. Removing
//   the folder by hand ends all check-ins in it, and the observations that began before see no more
//   of them.
// - Everything else in the folder (other names, links, pipes, folders, files of other users or that
//   cannot be read) never counts and stays untouched.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/UniqueFd.h"

// All functions: any thread.
namespace Platform::CheckIns {

// The path of the folder, made when missing. None without a runtime directory, and when others than
// the user can enter the folder or the user cannot.
std::optional<std::string> folder();

// Why there is none: as runtimeDirectoryProblem.
std::string folderProblem();

// Checks in. The instance lasts for as long as the descriptor is open, at most until the process
// ends. Empty when the user has no runtime directory, the identifier is too long for a file name,
// or the system has no descriptor or room.
UniqueFd checkIn(const Text& bundleIdentifier);

// What a final name says; none for any other file name.
std::optional<Text> bundleIdentifierOf(std::string_view name);

// The final names in the folder. Removes what processes that ended while checking in have left.
std::vector<std::string> names(const std::string& folder);

enum class Presence {
  running,
  gone,     // ended, and the file is removed; or nothing that counts
  unknown,  // no descriptor to look with
};
Presence presence(const std::string& folder, const std::string& name);

}  // namespace Platform::CheckIns
