// The sd-bus contender's server.
//
//   bench_sdbus_server            peer to peer: accepts at the socket handed to it
//   bench_sdbus_server ADDRESS    a service on the message bus at ADDRESS; says "ready" when it is
//   one
//
// Each connection has a thread of its own that processes and waits: measured faster than one
// sd-event loop over all, which adds its own timers and polling to every message.
#include <sys/socket.h>

#include <cstdio>
#include <thread>

#include "Benchmarks/Broker/Registry.h"
#include "Benchmarks/Broker/SdBus.h"

using namespace Benchmark;

namespace {

int answerRetrieve(sd_bus_message* call, void* registry, sd_bus_error* error) {
  const char* identifier = nullptr;
  checked(sd_bus_message_read(call, "s", &identifier), "retrieve");
  const Registry::Endpoint endpoint = static_cast<Registry*>(registry)->find(identifier);
  if (!endpoint) return sd_bus_error_set(error, "com.gantrel.Benchmark.Unknown", identifier);
  return sd_bus_reply_method_return(call, "h", endpoint->get());
}

int answerRegister(sd_bus_message* call, void* registry, sd_bus_error*) {
  const char* identifier = nullptr;
  int endpoint = -1;
  checked(sd_bus_message_read(call, "sh", &identifier, &endpoint), "register");
  static_cast<Registry*>(registry)->put(identifier, duplicate(endpoint));
  return sd_bus_reply_method_return(call, "b", true);
}

const sd_bus_vtable methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Retrieve", "s", "h", answerRetrieve, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Register", "sh", "b", answerRegister, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

void offer(sd_bus* bus, Registry& registry) {
  checked(sd_bus_add_object_vtable(bus, nullptr, sdBusPath, sdBusInterface, methods, &registry),
          "sd_bus_add_object_vtable");
}

// Until the peer goes.
void process(sd_bus* bus) {
  for (;;) {
    const int processed = sd_bus_process(bus, nullptr);
    if (processed < 0) return;
    if (processed == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) return;
  }
}

void servePeer(Descriptor socket, Registry& registry) {
  const SdBusConnection connection = newSdBusConnection();
  sd_bus* const bus = connection.get();
  sd_id128_t id;
  checked(sd_id128_randomize(&id), "sd_id128_randomize");
  checked(sd_bus_set_server(bus, true, id), "sd_bus_set_server");
  checked(sd_bus_set_fd(bus, socket.get(), socket.get()), "sd_bus_set_fd");
  socket.release();
  offer(bus, registry);
  checked(sd_bus_start(bus), "sd_bus_start");
  process(bus);
}

}  // namespace

int main(int count, char** arguments) {
  raiseDescriptorLimit();
  Registry registry;
  if (count > 1) {
    const SdBusConnection connection = connectToBus(arguments[1]);
    offer(connection.get(), registry);
    checked(sd_bus_request_name(connection.get(), sdBusService, 0), "sd_bus_request_name");
    std::puts("ready");
    std::fflush(stdout);
    process(connection.get());
    return EXIT_FAILURE;  // the bus is gone
  }
  const Descriptor listener = handedSocket();
  for (;;) {
    Descriptor socket(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket.isValid()) fail("accept");
    std::thread([&registry, socket = std::move(socket)]() mutable {
      servePeer(std::move(socket), registry);
    }).detach();
  }
}
