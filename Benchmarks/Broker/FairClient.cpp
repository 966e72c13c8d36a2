// The fair floor's client: blocking sendmsg and recvmsg like the bare one's, but each request is
// encoded for itself, each reply belongs to a request by its serial, and descriptors in a row are
// closed by one call.
#include <unistd.h>

#include <algorithm>

#include "Benchmarks/Broker/Contender.h"
#include "Benchmarks/Broker/FloorFrames.h"
#include "Benchmarks/Broker/Sockets.h"

namespace Benchmark {
namespace {

void closeAll(std::vector<int>& descriptors) {
  std::sort(descriptors.begin(), descriptors.end());
  for (auto first = descriptors.begin(); first != descriptors.end();) {
    auto last = first;
    while (last + 1 != descriptors.end() && last[1] == *last + 1) ++last;
    const auto from = static_cast<unsigned>(*first);
    const auto to = static_cast<unsigned>(*last);
    if (::close_range(from, to, 0) != 0) fail("close_range");
    first = last + 1;
  }
  descriptors.clear();
}

class FairClient : public Client {
 public:
  explicit FairClient(Descriptor socket) : socket_(std::move(socket)) {}

  bool retrieve(const std::string& identifier) override {
    call(FrameKind::retrieve, identifier, {});
    return reader_.takeDescriptor().isValid();
  }

  void registerEndpoint(const std::string& identifier) override {
    const int endpoint = ownEndpoint();
    call(FrameKind::registration, identifier, {&endpoint, 1});
  }

  std::uint64_t retrieveWhile(const GoesOn& goesOn, const std::string& identifier,
                              unsigned inFlight) override {
    // The serials awaited. Answers come in the order of the requests, so the place of the one that
    // a new serial falls on is free.
    std::vector<std::uint64_t> awaited(inFlight);
    std::vector<int> arrived;
    std::uint64_t asked = 0;
    std::uint64_t answered = 0;
    const auto ask = [&] {
      const std::uint64_t serial = ++lastSerial_;
      awaited[serial % inFlight] = serial;
      appendFrame(requests_, {FrameKind::retrieve, serial, identifier});
      ++asked;
    };
    while (asked < inFlight) ask();
    send({});
    while (answered < asked) {
      if (!reader_.receive()) fail("the broker is gone");
      while (const std::optional<Frame> reply = reader_.next()) {
        if (std::exchange(awaited[reply->serial % inFlight], 0) != reply->serial) {
          fail("an answer to nothing");
        }
        arrived.push_back(reader_.takeDescriptor().release());
        if (arrived.back() < 0) fail("a reply without endpoint");
        ++answered;
        if (goesOn(answered)) ask();
      }
      closeAll(arrived);
      send({});
    }
    return answered;
  }

 private:
  void call(FrameKind kind, std::string_view identifier, std::span<const int> descriptors) {
    const std::uint64_t serial = ++lastSerial_;
    appendFrame(requests_, {kind, serial, identifier});
    send(descriptors);
    const std::optional<Frame> reply = reader_.wait();
    if (!reply) fail("the broker is gone");
    if (reply->serial != serial) fail("an answer to nothing");
  }

  void send(std::span<const int> descriptors) {
    if (!sendAll(socket_.get(), requests_, descriptors)) fail("cannot send");
    requests_.clear();
  }

  const Descriptor socket_;
  FrameReader reader_{socket_.get()};
  std::vector<char> requests_;  // not yet sent
  std::uint64_t lastSerial_ = 0;
};

std::unique_ptr<Client> connect(const std::string& address) {
  return std::make_unique<FairClient>(connectTo(address));
}

}  // namespace

const Contender contender{connect};

}  // namespace Benchmark
