// What the sd-bus contender's server and client agree on, with a bus in between and without.
//
// An address that begins with "unix:" is a message bus's; any other is the path of a socket on
// which the server speaks the protocol itself, peer to peer.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

#include "Benchmarks/Broker/Sockets.h"

namespace Benchmark {

inline constexpr char sdBusService[] = "com.gantrel.Benchmark";
inline constexpr char sdBusPath[] = "/com/gantrel/Benchmark";
inline constexpr char sdBusInterface[] = "com.gantrel.Benchmark.Broker";

// The library's calls answer a negative errno.
inline int checked(int result, const char* what) {
  if (result < 0) {
    errno = -result;
    fail(what);
  }
  return result;
}

struct SdBusUnref {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using SdBusConnection = std::unique_ptr<sd_bus, SdBusUnref>;
using SdBusMessage = std::unique_ptr<sd_bus_message, SdBusUnref>;

// A connection that carries descriptors and is not yet started.
inline SdBusConnection newSdBusConnection() {
  sd_bus* bus = nullptr;
  checked(sd_bus_new(&bus), "sd_bus_new");
  SdBusConnection connection(bus);
  checked(sd_bus_negotiate_fds(bus, true), "sd_bus_negotiate_fds");
  return connection;
}

inline bool isBusAddress(const std::string& address) {
  return address.starts_with("unix:");
}

inline SdBusConnection connectToBus(const std::string& address) {
  SdBusConnection connection = newSdBusConnection();
  checked(sd_bus_set_address(connection.get(), address.c_str()), "sd_bus_set_address");
  checked(sd_bus_set_bus_client(connection.get(), true), "sd_bus_set_bus_client");
  checked(sd_bus_start(connection.get()), "cannot connect to the bus");
  return connection;
}

}  // namespace Benchmark
