// The sd-bus contender's client: blocking calls, and asynchronous ones for many in flight.
#include "Benchmarks/Broker/Contender.h"
#include "Benchmarks/Broker/SdBus.h"

namespace Benchmark {
namespace {

class SdBusClient : public Client {
 public:
  explicit SdBusClient(const std::string& address)
      : connection_(isBusAddress(address) ? connectToBus(address) : connectToPeer(address)),
        destination_(isBusAddress(address) ? sdBusService : nullptr) {}

  bool retrieve(const std::string& identifier) override {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call_method(bus(), destination_, sdBusPath, sdBusInterface,
                                          "Retrieve", &error, &reply, "s", identifier.c_str());
    const bool answered = sd_bus_error_is_set(&error);
    sd_bus_error_free(&error);
    if (result < 0 && answered) return false;
    checked(result, "retrieve");
    readEndpoint(SdBusMessage(reply).get());
    return true;
  }

  void registerEndpoint(const std::string& identifier) override {
    sd_bus_message* reply = nullptr;
    checked(sd_bus_call_method(bus(), destination_, sdBusPath, sdBusInterface, "Register", nullptr,
                               &reply, "sh", identifier.c_str(), ownEndpoint()),
            "register");
    SdBusMessage{reply};
  }

  std::uint64_t retrieveWhile(const GoesOn& goesOn, const std::string& identifier,
                              unsigned inFlight) override {
    Flight flight{*this, identifier, goesOn};
    for (unsigned i = 0; i < inFlight; ++i) flight.ask();
    while (flight.answered < flight.asked) {
      if (checked(sd_bus_process(bus(), nullptr), "the broker is gone") == 0) {
        checked(sd_bus_wait(bus(), UINT64_MAX), "sd_bus_wait");
      }
    }
    return flight.answered;
  }

 private:
  // The requests of one retrieveWhile: each answer asks the next.
  struct Flight {
    SdBusClient& client;
    const std::string& identifier;
    const GoesOn& goesOn;
    std::uint64_t asked = 0;
    std::uint64_t answered = 0;

    void ask() {
      checked(sd_bus_call_method_async(client.bus(), nullptr, client.destination_, sdBusPath,
                                       sdBusInterface, "Retrieve", answer, this, "s",
                                       identifier.c_str()),
              "retrieve");
      ++asked;
    }

    static int answer(sd_bus_message* reply, void* self, sd_bus_error*) {
      auto& flight = *static_cast<Flight*>(self);
      readEndpoint(reply);
      ++flight.answered;
      if (flight.goesOn(flight.answered)) flight.ask();
      return 0;
    }
  };

  static SdBusConnection connectToPeer(const std::string& path) {
    SdBusConnection connection = newSdBusConnection();
    const int socket = connectTo(path).release();
    checked(sd_bus_set_fd(connection.get(), socket, socket), "sd_bus_set_fd");
    checked(sd_bus_start(connection.get()), "sd_bus_start");
    return connection;
  }

  // The descriptor belongs to the message and is closed with it.
  static void readEndpoint(sd_bus_message* reply) {
    int endpoint = -1;
    checked(sd_bus_message_read(reply, "h", &endpoint), "a reply without endpoint");
  }

  sd_bus* bus() const { return connection_.get(); }

  const SdBusConnection connection_;
  const char* const destination_;  // null without a bus
};

std::unique_ptr<Client> connect(const std::string& address) {
  return std::make_unique<SdBusClient>(address);
}

}  // namespace

const Contender contender{connect};

}  // namespace Benchmark
