// The measuring loops, and main of every contender's client executable. After the command, ADDRESS:
//
//   launch NAME COMMAND...             listens there, says "ready", becomes the server COMMAND
//   startup NAME COMMAND...            the same in a child: time from its exec to the first answer
//   populate COUNT                     registers COUNT identifiers
//   idle COUNT                         holds COUNT connections, each used once
//   host                               registers a listener and answers those who meet it
//   latency STEP SECONDS SPREAD        one retrieve, register or meet after the other, of SPREAD
//                                      identifiers in turn
//   throughput SECONDS FLIGHT BYTES    retrievals of an identifier of BYTES, FLIGHT under way
//   machine                            what a system call takes here
//   exactly STEP COUNT FLIGHT          one retrieve or register after the other, or with "flight"
//                                      retrievals with FLIGHT under way, until COUNT are done
//
// A command that takes time says "ready" when it is prepared and warm. The measuring ones then wait
// for a line on standard input, the others for its end. Results are one line of JSON.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Benchmarks/Broker/Contender.h"
#include "Benchmarks/Broker/Launch.h"
#include "Benchmarks/Broker/Sockets.h"

using namespace Benchmark;

namespace {

using Seconds = std::chrono::duration<double>;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t usualLength = 40;
constexpr std::size_t hostedNumber = 999'999'999;  // no other step registers it
constexpr double warmUpShare = 0.25;               // of the measured time

// ASCII, `length` bytes (at least 40), different for each number.
std::string identifierOf(std::size_t number, std::size_t length = usualLength) {
  char text[usualLength + 1];
  std::snprintf(text, sizeof text, "com.gantrel.benchmark.endpoint.%09zu", number);
  return std::string(text).append(length - usualLength, 'x');
}

void ready() {
  std::puts("ready");
  std::fflush(stdout);
}

void awaitGo() {
  ready();
  std::getchar();
}

void awaitEnd() {
  ready();
  while (std::getchar() != EOF) {
  }
}

Clock::time_point after(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
}

int launch(char** arguments) {
  Descriptor listener = listenAt(arguments[0]);
  ready();
  becomeServer(std::move(listener), arguments[1], arguments + 2);
}

int startup(char** arguments) {
  const std::string address = arguments[0];
  Descriptor listener = listenAt(address);
  // The child notes the time just before its exec.
  void* const shared = ::mmap(nullptr, sizeof(Clock::time_point), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) fail("mmap");
  auto* const executed = static_cast<Clock::time_point*>(shared);
  const pid_t child = ::fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    *executed = Clock::now();
    becomeServer(std::move(listener), arguments[1], arguments + 2);
  }
  const bool isBus = std::string_view(arguments[2]).ends_with("dbus-daemon");
  contender.connect(isBus ? "unix:path=" + address : address)->retrieve(identifierOf(0));
  const Microseconds elapsed = Clock::now() - *executed;
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  std::printf("{\"microseconds\": %.1f}\n", elapsed.count());
  return EXIT_SUCCESS;
}

int populate(char** arguments) {
  const std::unique_ptr<Client> client = contender.connect(arguments[0]);
  const std::size_t count = std::strtoul(arguments[1], nullptr, 10);
  for (std::size_t i = 0; i < count; ++i) client->registerEndpoint(identifierOf(i));
  awaitEnd();
  return EXIT_SUCCESS;
}

int idle(char** arguments) {
  std::vector<std::unique_ptr<Client>> clients(std::strtoul(arguments[1], nullptr, 10));
  for (auto& client : clients) {
    client = contender.connect(arguments[0]);
    client->retrieve(identifierOf(0));
  }
  awaitEnd();
  return EXIT_SUCCESS;
}

int host(char** arguments) {
  contender.host(arguments[0], identifierOf(hostedNumber), ready);
  return EXIT_SUCCESS;
}

std::vector<double> sample(const std::function<void(std::size_t)>& step, double seconds) {
  std::vector<double> microseconds;
  const Clock::time_point end = after(seconds);
  for (Clock::time_point now = Clock::now(); now < end;) {
    step(microseconds.size());
    const Clock::time_point then = std::exchange(now, Clock::now());
    microseconds.push_back(Microseconds(now - then).count());
  }
  return microseconds;
}

int latency(char** arguments) {
  const std::string address = arguments[0];
  const std::string_view kind = arguments[1];
  const double seconds = std::strtod(arguments[2], nullptr);
  std::vector<std::string> identifiers(std::strtoul(arguments[3], nullptr, 10));
  for (std::size_t i = 0; i < identifiers.size(); ++i) identifiers[i] = identifierOf(i);
  // Neighbours in this order are far apart in the order of registration: 7919 is prime.
  const auto pick = [&](std::size_t i) -> const std::string& {
    return identifiers[i * 7919 % identifiers.size()];
  };

  std::function<void(std::size_t)> step;
  std::unique_ptr<Client> client;
  if (kind == "meet") {
    step = [&, hosted = identifierOf(hostedNumber)](std::size_t) {
      contender.meet(address, hosted);
    };
  } else {
    client = contender.connect(address);
    client->registerEndpoint(identifiers[0]);
    if (kind == "register") {
      step = [&](std::size_t i) { client->registerEndpoint(pick(i)); };
    } else {
      step = [&](std::size_t i) {
        if (!client->retrieve(pick(i))) fail("nothing was registered");
      };
    }
  }
  sample(step, seconds * warmUpShare);
  awaitGo();
  std::vector<double> microseconds = sample(step, seconds);
  std::sort(microseconds.begin(), microseconds.end());
  std::printf("{\"operations\": %zu, \"median\": %.3f, \"p99\": %.3f}\n", microseconds.size(),
              microseconds[microseconds.size() / 2], microseconds[microseconds.size() * 99 / 100]);
  return EXIT_SUCCESS;
}

int throughput(char** arguments) {
  const std::unique_ptr<Client> client = contender.connect(arguments[0]);
  const double seconds = std::strtod(arguments[1], nullptr);
  const auto inFlight = static_cast<unsigned>(std::strtoul(arguments[2], nullptr, 10));
  const std::string identifier = identifierOf(0, std::strtoul(arguments[3], nullptr, 10));
  client->registerEndpoint(identifier);
  const auto until = [](Clock::time_point end) {
    return [end](std::uint64_t) { return Clock::now() < end; };
  };
  client->retrieveWhile(until(after(seconds * warmUpShare)), identifier, inFlight);
  awaitGo();
  const Clock::time_point start = Clock::now();
  const std::uint64_t operations =
      client->retrieveWhile(until(after(seconds)), identifier, inFlight);
  std::printf("{\"operations\": %llu, \"seconds\": %.6f}\n",
              static_cast<unsigned long long>(operations), Seconds(Clock::now() - start).count());
  return EXIT_SUCCESS;
}

int exactly(char** arguments) {
  const std::unique_ptr<Client> client = contender.connect(arguments[0]);
  const std::string_view kind = arguments[1];
  const std::uint64_t count = std::strtoull(arguments[2], nullptr, 10);
  const auto inFlight = static_cast<unsigned>(std::strtoul(arguments[3], nullptr, 10));
  const std::string identifier = identifierOf(0);
  client->registerEndpoint(identifier);
  awaitGo();
  std::uint64_t done = 0;
  if (kind == "flight") {
    done = client->retrieveWhile([count](std::uint64_t answered) { return answered < count; },
                                 identifier, inFlight);
  } else {
    for (; done < count; ++done) {
      if (kind == "register") {
        client->registerEndpoint(identifier);
      } else if (!client->retrieve(identifier)) {
        fail("nothing was registered");
      }
    }
  }
  std::printf("{\"operations\": %llu}\n", static_cast<unsigned long long>(done));
  return EXIT_SUCCESS;
}

int machine(char**) {
  constexpr int calls = 20'000;
  constexpr int runs = 25;
  std::vector<double> nanoseconds;
  while (nanoseconds.size() < runs) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < calls; ++i) ::getppid();
    const Microseconds elapsed = Clock::now() - start;
    nanoseconds.push_back(elapsed.count() * 1000 / calls);
  }
  std::sort(nanoseconds.begin(), nanoseconds.end());
  std::printf("{\"system_call_ns\": %.0f}\n", nanoseconds[runs / 2]);
  return EXIT_SUCCESS;
}

struct Command {
  int (*run)(char** arguments);
  int arguments;  // at least so many
};

const std::map<std::string_view, Command> commands{
    {"launch", {launch, 3}},
    {"startup", {startup, 3}},
    {"populate", {populate, 2}},
    {"idle", {idle, 2}},
    {"host", {host, 1}},
    {"latency", {latency, 4}},
    {"throughput", {throughput, 4}},
    {"exactly", {exactly, 4}},
    {"machine", {machine, 0}},
};

}  // namespace

int main(int count, char** arguments) {
  const auto command = count > 1 ? commands.find(arguments[1]) : commands.end();
  if (command == commands.end() || count - 2 < command->second.arguments) {
    std::fprintf(stderr, "%s: for the benchmark's harness; see the top of Worker.cpp\n",
                 arguments[0]);
    return EXIT_FAILURE;
  }
  raiseDescriptorLimit();
  return command->second.run(arguments + 2);
}
