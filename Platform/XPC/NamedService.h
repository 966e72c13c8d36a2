// Named services: sockets of the runtime directory that a process serves under a name.
//
// <runtime>/gantrel/NAME.socket is where clients connect. A service manager may have made it and
// hand it over, by the name as the descriptor's name; it is then never renamed or removed here.
// Else the process that holds the lock on NAME.lock beside it owns the name: it binds under a
// temporary name and moves the socket to its final name once it listens, so that where the name
// appears, the service is ready. A lock ends with its process, so a crashed owner leaves no
// obstacle.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {

// Where the service of that name is reached. None when there is no runtime directory, or when the
// name is empty, holds a slash or a NUL, or makes too long a path. Any thread.
std::optional<std::string> namedServicePath(const Text& name);

// The right to serve a name, with the socket to do it on. It lasts as long as the object.
class NamedService {
 public:
  // Null when somebody else serves the name or waits to serve it, or when namedServicePath is none.
  static std::unique_ptr<NamedService> claim(const Text& name);

  NamedService(const NamedService&) = delete;
  NamedService& operator=(const NamedService&) = delete;
  // The published name stays: removing it could hit a successor's.
  ~NamedService();

  int socket() const { return socket_.get(); }

  // Listens, and makes the service appear under its name. False when the system refuses.
  bool publish();

 private:
  NamedService() = default;

  UniqueFd lock_;  // invalid for a socket that was handed over
  UniqueFd socket_;
  std::string temporaryPath_;  // empty when published or handed over
  std::string path_;
};

}  // namespace Platform
