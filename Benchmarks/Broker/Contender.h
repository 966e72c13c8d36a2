// What every contender of the broker benchmark offers, so that one set of measuring loops serves
// all.
//
// A broker keeps endpoints (O_PATH descriptors of listening sockets) under identifiers and hands
// them out. Each contender is a server process and a client executable; the client is the
// contender's own source together with Worker.cpp. Whatever goes wrong ends the process with a
// sentence: a benchmark that limps measures nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Benchmark {

using Clock = std::chrono::steady_clock;

// Asked when an answer has come; given how many have.
using GoesOn = std::function<bool(std::uint64_t answered)>;

// An application's link to the broker, used from one thread.
class Client {
 public:
  virtual ~Client() = default;

  // Waits for the endpoint and closes it again. False when the broker has none.
  virtual bool retrieve(const std::string& identifier) = 0;

  // Hands over an endpoint of this client's own and waits until the broker says that it holds it.
  virtual void registerEndpoint(const std::string& identifier) = 0;

  // Keeps `inFlight` retrievals under way as long as `goesOn`, then waits for those still out. Each
  // endpoint is closed as it arrives. Returns how many arrived.
  virtual std::uint64_t retrieveWhile(const GoesOn& goesOn, const std::string& identifier,
                                      unsigned inFlight) = 0;
};

struct Contender {
  std::unique_ptr<Client> (*connect)(const std::string& address);

  // Both null for a contender that does not take part in the question of meeting.
  // Registers a listener under `identifier`, calls `ready`, and answers every message, for ever.
  void (*host)(const std::string& address, const std::string& identifier,
               void (*ready)()) = nullptr;
  // Connects to the broker, retrieves, connects to the endpoint, waits for the answer to a first
  // message, and closes both connections.
  void (*meet)(const std::string& address, const std::string& identifier) = nullptr;
};

// Defined by the contender's source.
extern const Contender contender;

}  // namespace Benchmark
