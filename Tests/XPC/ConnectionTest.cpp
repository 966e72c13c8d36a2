#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <latch>
#include <mutex>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Platform/XPC/NamedService.h"
#include "Platform/XPC/Socket.h"
#include "Platform/XPC/UntypedProxy.h"
#include "Tests/Support/TestProcess.h"

namespace Platform {
namespace {

using namespace TestSupport;

class Peer {
 public:
  virtual ~Peer() = default;
  virtual void echo(Value value, Reply<Value> reply) = 0;
  virtual void dropReply(Reply<bool> reply) = 0;

  class Proxy;
  static consteval auto protocol() {
    return Protocol("Peer", method<&Peer::echo>("echo:reply:"),
                    method<&Peer::dropReply>("dropReply:"));
  }
};

class Peer::Proxy final : public RemoteProxy<Peer> {
 public:
  using RemoteProxy::RemoteProxy;
  void echo(Value value, Reply<Value> reply) override { send<&Peer::echo>(value, reply); }
  void dropReply(Reply<bool> reply) override { send<&Peer::dropReply>(reply); }
};

std::shared_ptr<NSXPCConnection> connectionTo(const EndpointRef& endpoint) {
  auto connection = NSXPCConnection::initWithListenerEndpoint(endpoint);
  connection->resume();
  return connection;
}

// A waiting echo; nil when there is no answer.
Value ask(const std::shared_ptr<NSXPCConnection>& connection, Value question) {
  Value answer;
  connection->synchronousRemoteObjectProxyWithErrorHandler<Peer>({})->echo(
      std::move(question), [&](Value value) { answer = std::move(value); });
  return answer;
}

class Callee : public NSObject, public Peer {
 public:
  void echo(Value value, Reply<Value> reply) override {
    if (onEcho) onEcho();
    reply(std::move(value));
    reply(Value("a second answer is ignored"_text));
  }
  void dropReply(Reply<bool>) override {}

  std::function<void()> onEcho;
};

class Service final : public Callee, public NSXPCListenerDelegate {
 public:
  static std::shared_ptr<Service> start() {
    auto service = std::make_shared<Service>();
    service->listening->setDelegate(service);
    service->listening->resume();
    return service;
  }

  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Peer>());
    connection->setExportedObject(exported ? exported : shared_from_this());
    {
      const std::lock_guard lock(mutex_);
      last_ = connection;
    }
    connection->resume();
    return true;
  }

  EndpointRef endpoint() const { return listening->endpoint(); }
  // The connection that was accepted last; null once it has gone.
  std::shared_ptr<NSXPCConnection> last() {
    const std::lock_guard lock(mutex_);
    return last_.lock();
  }

  const std::shared_ptr<NSXPCListener> listening = NSXPCListener::anonymousListener();
  std::shared_ptr<NSObject> exported;  // null: itself

 private:
  std::mutex mutex_;
  std::weak_ptr<NSXPCConnection> last_;
};

class Connections : public testing::Test {
 protected:
  const TestSupport::PrivateRuntimeDirectory directory;
  const std::shared_ptr<Service> service = Service::start();
  const std::shared_ptr<NSXPCConnection> connection = connectionTo(service->endpoint());
};

TEST_F(Connections, CarryEveryKindOfValueAndKeepEndpointsConnectable) {
  const Value values =
      Array{Array{Value(), true, false, Array{}, 0.0, -1.5, NSDate{-1e9}, Data{std::byte{255}}},
            Array{0, 23, 24, 255, 256, 65535, 65536, 4294967295u, 4294967296u, UINT64_MAX},
            Array{-1, -24, -25, INT64_MIN},
            Dictionary{{"caf\u00e9"_text, Dictionary{}}, {""_text, ""_text}}};
  EXPECT_EQ(ask(connection, values), values);
  Value deepest = NSDate{1};
  for (int depth = 0; depth < Wire::deepestNesting; ++depth) deepest = Array{deepest};
  EXPECT_EQ(ask(connection, deepest), deepest);
  EXPECT_EQ(ask(connection, Array{deepest}), Value());

  const Value answer = ask(connection, Array{service->endpoint(), service->endpoint()});
  ASSERT_TRUE(answer.asArray() && answer.asArray()->size() == 2);
  for (const Value& item : *answer.asArray()) {
    const auto endpoint = item.asObject<NSXPCListenerEndpoint>();
    ASSERT_TRUE(endpoint);
    EXPECT_EQ(ask(connectionTo(endpoint), 7), Value(7));
  }
}

// In memory an item takes many times its byte on the wire.
TEST_F(Connections, RefuseToSendAndToReadMoreItemsThanFitInMemory) {
  const Value most = Array(Wire::mostItems, NSDate{1});
  EXPECT_EQ(ask(connection, most), most);
  EXPECT_EQ(ask(connection, Array(Wire::mostItems + 1, 1)), Value());
  Encoder encoder;
  encoder.head(Wire::Major::array, Wire::mostItems + 1);
  for (std::size_t i = 0; i <= Wire::mostItems; ++i) encoder.simple(Wire::nullByte);
  const OutgoingFrame sent = encoder.finish();
  Frame received;
  received.keep({sent.bytes.begin() + Wire::headerSize, sent.bytes.end()});
  Decoder decoder(received);
  decoder.value();
  EXPECT_TRUE(decoder.isMalformed());
}

// The last handler waits for what the peer does when it has the answer before.
TEST_F(Connections, AnswerWhileALaterHandlerTakesItsTime) {
  class Slow final : public Callee {
   public:
    void echo(Value value, Reply<Value> reply) override {
      dispatch_async(queue, [=] { reply(value); });
    }
    void dropReply(Reply<bool> reply) override {
      auto goesOn = events[handled++].get_future();
      reply(goesOn.wait_for(std::chrono::seconds(5)) == std::future_status::ready);
    }
    const dispatch_queue_t queue = dispatch_queue_create("answers", DISPATCH_QUEUE_SERIAL);
    std::promise<void> events[2];
    std::size_t handled = 0;
  };
  const auto slow = std::make_shared<Slow>();
  service->exported = slow;
  const auto proxy = connectionTo(service->endpoint())->remoteObjectProxy<Peer>();
  std::promise<bool> end;
  proxy->dropReply({});
  proxy->echo(1, [&](Value) { slow->events[1].set_value(); });
  proxy->dropReply([&](bool inTime) { end.set_value(inTime); });
  slow->events[0].set_value();  // the others arrive together
  EXPECT_TRUE(end.get_future().get());
}

// What waits for the socket goes out many messages a call, which the kernel cuts anew.
TEST_F(Connections, CarryEndpointsBetweenLongMessagesThatWaited) {
  constexpr unsigned count = 400;
  std::latch answered(count);
  std::promise<void> sent;
  service->onEcho = [&, allSent = sent.get_future().share()] { allSent.wait(); };
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<Peer>([&](NSXPCConnectionError) {
    ADD_FAILURE() << "an answer was lost";
    answered.count_down();
  });
  for (unsigned i = 0; i < count; ++i) {
    const Value data = Data(i * 37 % 5000);
    proxy->echo(i % 3 == 0 ? data : Array{service->endpoint(), data},
                [&](const Value&) { answered.count_down(); });
  }
  sent.set_value();
  answered.wait();
}

TEST_F(Connections, LetHandlersAndReplyBlocksWaitForAnswers) {
  const auto other = Service::start();
  service->onEcho = [&] { EXPECT_EQ(ask(connectionTo(other->endpoint()), 1), Value(1)); };
  // Both ends are in this process, so each nested call needs a worker while another one waits.
  constexpr int count = 40;
  std::latch answered(count);
  for (int i = 0; i < count; ++i) {
    const auto each = connectionTo(service->endpoint());
    each->remoteObjectProxy<Peer>()->echo(i, [&, each](Value value) {
      EXPECT_EQ(ask(each, value), value);
      answered.count_down();
    });
  }
  answered.wait();
}

// Each handler waits for one that waits, until there is no thread to answer the next.
TEST_F(Connections, RefuseTheCallForWhichNoThreadIsLeftAndGoOn) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 4096) GTEST_SKIP() << "each of the connections takes two descriptors";
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  std::atomic<int> waiting = 0;
  std::vector<NSXPCConnectionError> errors;
  service->onEcho = [&] {
    ++waiting;
    connectionTo(service->endpoint())
        ->synchronousRemoteObjectProxyWithErrorHandler<Peer>(
            [&](NSXPCConnectionError error) { errors.push_back(error); })
        ->echo({}, [](const Value&) {});
  };
  for (std::size_t times = 1; times <= 2; ++times) {
    waiting = 0;
    EXPECT_EQ(ask(connection, times), Value(times));
    EXPECT_GT(waiting, 500);
    EXPECT_EQ(errors, std::vector(times, NSXPCConnectionError::refused));
  }
}

TEST_F(Connections, AnswerWaitingCallsOfManyThreads) {
  std::vector<std::future<void>> threads;
  for (int t = 0; t < 8; ++t) {
    threads.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < 200; ++i) EXPECT_EQ(ask(connection, t * 1000 + i), Value(t * 1000 + i));
    }));
  }
}

// A worker that reads when the call begins, and then finds nothing, must hand the reading over.
TEST_F(Connections, AnswerAWaitingCallThatFindsAWorkerReading) {
  const UniqueFd listening = bindTo(*namedServicePath("slow"_text));
  ASSERT_TRUE(listenOn(listening.get()));
  const auto slow = NSXPCConnection::initWithMachServiceName("slow"_text);
  slow->resume();
  const auto proxy = slow->remoteObjectProxy<Peer>();
  constexpr std::uint8_t calls = 10;
  std::promise<void> asked;
  proxy->echo({}, [&](Value) { asked.set_value(); });
  const UniqueFd peer(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
  std::thread answering([&] {
    for (std::uint8_t serial = 1; serial <= calls; ++serial) {
      std::byte request[256];
      ::recv(peer.get(), request, sizeof request, 0);
      // Every second one, the waiting call, after longer than a worker stays with a connection.
      if (serial % 2 == 0) ::poll(nullptr, 0, 30);
      const std::uint8_t nil[] = {5, 0, 0, 0, 0, 0, 0, 0, 0x83, 2, serial, 0x81, 0xF6};
      EXPECT_EQ(::send(peer.get(), nil, sizeof nil, MSG_NOSIGNAL), ssize_t{sizeof nil});
    }
  });
  for (int call = 2; call <= calls; call += 2) {
    asked.get_future().wait();
    bool answered = false;
    slow->synchronousRemoteObjectProxyWithErrorHandler<Peer>({})->echo(
        {}, [&](Value) { answered = true; });
    EXPECT_TRUE(answered);
    asked = {};
    if (call < calls) proxy->echo({}, [&](Value) { asked.set_value(); });
  }
  answering.join();
}

// A service of a name whose every byte the test sends itself.
class RawService {
 public:
  RawService() : listening_(bindTo(*namedServicePath("raw"_text))) {
    EXPECT_TRUE(listenOn(listening_.get()));
    connection = NSXPCConnection::initWithMachServiceName("raw"_text);
    connection->resume();
  }
  UniqueFd accept() const {
    pollfd ready{listening_.get(), POLLIN, 0};
    ::poll(&ready, 1, -1);
    return UniqueFd(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  static std::size_t readToEnd(const UniqueFd& peer) {
    std::vector<std::byte> buffer(1 << 20);
    std::size_t total = 0;
    for (ssize_t count; (count = ::read(peer.get(), buffer.data(), buffer.size())) > 0;) {
      total += static_cast<std::size_t>(count);
    }
    return total;
  }

  std::shared_ptr<NSXPCConnection> connection;

 private:
  const UniqueFd listening_;
};

TEST_F(Connections, SendWhatWasHandedToThemAlsoWhenTheirOwnerGoes) {
  RawService raw;
  const Data data(4 << 20);
  raw.connection->remoteObjectProxy<Peer>()->echo(data, [](Value) {});
  const UniqueFd peer = raw.accept();
  EXPECT_FALSE(raw.connection->waitUntilSent(std::chrono::milliseconds(1)));
  raw.connection.reset();
  EXPECT_GT(RawService::readToEnd(peer), data.size());

  raw.connection = NSXPCConnection::initWithMachServiceName("raw"_text);
  raw.connection->resume();
  raw.connection->remoteObjectProxy<Peer>()->echo(data, [](Value) {});
  const UniqueFd second = raw.accept();
  auto read = std::async(std::launch::async, [&] { return RawService::readToEnd(second); });
  EXPECT_TRUE(raw.connection->waitUntilSent(std::chrono::minutes(1)));
  raw.connection->invalidate();
  EXPECT_GT(read.get(), data.size());

  const auto early = NSXPCConnection::initWithMachServiceName("early"_text);
  early->resume();
  EXPECT_EQ(ask(early, 1), Value());
  EXPECT_TRUE(early->waitUntilSent(std::chrono::minutes(1))) << "the call's error has told of it";
  UntypedProxy(early).send("note:", {1});
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(early->waitUntilSent(std::chrono::minutes(1)));
  const UniqueFd listening = bindTo(*namedServicePath("early"_text));
  ASSERT_TRUE(listenOn(listening.get()));
  UntypedProxy(early).send("note:", {1});
  EXPECT_TRUE(early->waitUntilSent(std::chrono::minutes(1)));
}

TEST_F(Connections, TakeAFaultOfANamedServiceForAnInterruption) {
  RawService raw;
  std::atomic<int> losses = 0;
  raw.connection->setLinkLossHandler([&] { ++losses; });
  std::thread answering([&] {
    for (const bool isSound : {false, true}) {
      const UniqueFd peer = raw.accept();
      std::array<std::byte, 256> request;
      ::recv(peer.get(), request.data(), request.size(), 0);
      const std::uint8_t nil[] = {5, 0, 0, 0, 0, 0, 0, 0, 0x83, 2, 2, 0x81, 0xF6};
      const std::uint8_t none[] = {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
      isSound ? ::write(peer.get(), nil, sizeof nil) : ::write(peer.get(), none, sizeof none);
    }
  });
  // Asked again at once, where a handler waits on the connection's queue.
  std::promise<NSXPCConnectionError> interrupted;
  raw.connection
      ->remoteObjectProxyWithErrorHandler<Peer>([&](NSXPCConnectionError error) {
        raw.connection->synchronousRemoteObjectProxyWithErrorHandler<Peer>({})->echo(
            1, [&](Value) { EXPECT_NE(NSXPCConnection::answeringProcess(), 0u); });
        interrupted.set_value(error);
      })
      ->echo(1, [](Value) { FAIL() << "the answer was none"; });
  EXPECT_EQ(interrupted.get_future().get(), NSXPCConnectionError::interrupted);
  answering.join();
  EXPECT_TRUE(TestSupport::eventually([&] { return losses > 0; }));
  raw.connection->setLinkLossHandler({});
  raw.connection->invalidate();
}

TEST_F(Connections, GiveUpAWaitingCallAtItsTimeLimit) {
  std::promise<void> goOn;
  service->onEcho = [go = goOn.get_future().share()] { go.wait(); };
  std::optional<NSXPCConnectionError> error;
  connection
      ->synchronousRemoteObjectProxyWithErrorHandler<Peer>([&](auto e) { error = e; },
                                                           std::chrono::milliseconds(1))
      ->echo(1, [](Value) { FAIL() << "nobody answered"; });
  EXPECT_EQ(error, NSXPCConnectionError::timedOut);
  goOn.set_value();
  EXPECT_EQ(ask(connection, 2), Value(2));  // the late answer is nothing to anybody
}

TEST_F(Connections, TellBothFormsOfCallWhenTheAnswerCannotCome) {
  std::promise<NSXPCConnectionError> dropped;
  connection->remoteObjectProxyWithErrorHandler<Peer>([&](auto error) { dropped.set_value(error); })
      ->dropReply([](bool) { FAIL() << "nobody answered"; });
  EXPECT_EQ(dropped.get_future().get(), NSXPCConnectionError::refused);

  std::promise<void> invalidated;
  std::promise<NSXPCConnectionError> lost;
  connection->setInvalidationHandler([&] { invalidated.set_value(); });
  service->onEcho = [host = service.get()] { host->last()->invalidate(); };
  connection->remoteObjectProxyWithErrorHandler<Peer>([&](auto error) { lost.set_value(error); })
      ->echo(1, [](Value) { FAIL() << "the peer had gone"; });
  EXPECT_EQ(lost.get_future().get(), NSXPCConnectionError::invalid);
  invalidated.get_future().wait();
  std::optional<NSXPCConnectionError> error;
  connection->synchronousRemoteObjectProxyWithErrorHandler<Peer>([&](auto e) { error = e; })
      ->echo(1, [](Value) { FAIL() << "the connection was over"; });
  EXPECT_EQ(error, NSXPCConnectionError::invalid);
}

TEST_F(Connections, WakeAWaitingCallWhenTheyAreInvalidated) {
  std::promise<void> inside;
  std::promise<void> goOn;
  // Copied: the handler may outlive this test's frame.
  service->onEcho = [&inside, go = goOn.get_future().share()] {
    inside.set_value();
    go.wait();
  };
  auto waiting = std::async(std::launch::async, [&] { return ask(connection, 1); });
  inside.get_future().wait();
  connection->invalidate();
  EXPECT_EQ(waiting.get(), Value());
  goOn.set_value();
}

// As a process that is killed while it makes a listener leaves one.
TEST_F(Connections, LeaveNoNameOfAListenerBehindForLong) {
  const std::string name = "/gantrel/.0123456789abcdef0123456789abcdef";
  const auto isThere = [&] { return ::access((directory.path() + name).c_str(), F_OK) == 0; };
  const UniqueFd left = bindTo(directory.path() + name);
  {
    const UniqueFd folder(::open((directory.path() + "/gantrel").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(folder.get(), LOCK_SH), 0);
    EXPECT_TRUE(NSXPCListener::initWithMachServiceName("while another is being made"_text));
    EXPECT_TRUE(isThere());
  }
  EXPECT_TRUE(NSXPCListener::initWithMachServiceName("later"_text));
  EXPECT_FALSE(isThere());
}

TEST_F(Connections, AreRefusedByAListenerThatHasGone) {
  const EndpointRef endpoint = service->endpoint();
  EXPECT_EQ(ask(connectionTo(endpoint), 1), Value(1));
  service->listening->invalidate();
  EXPECT_EQ(ask(connectionTo(endpoint), 1), Value());
  EXPECT_EQ(service->endpoint(), endpoint);
}

TEST_F(Connections, KeepTheExportedObjectUntilItsMethodHasReturned) {
  auto both = NSXPCConnection::initWithListenerEndpoint(service->endpoint());
  auto callee = std::make_shared<Callee>();
  const std::weak_ptr watched = callee;
  std::promise<void> dropped;
  callee->onEcho = [&] {
    both.reset();
    EXPECT_FALSE(watched.expired());
    dropped.set_value();
  };
  both->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Peer>());
  both->setExportedObject(std::exchange(callee, nullptr));
  both->resume();
  service->onEcho = [&] { service->last()->remoteObjectProxy<Peer>()->echo(2, [](Value) {}); };
  both->remoteObjectProxy<Peer>()->echo(1, [](Value) {});
  dropped.get_future().wait();
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
}

// Both sides call each other while one of them ends it, in every way and from every thread.
TEST_F(Connections, MayEndAnywhereWhileCallsAreUnderWay) {
  ask(connection, 1);  // it is accepted by then
  // Copied: the last calls may outlive this test's frame.
  const auto way = std::make_shared<std::atomic<int>>();
  const auto endLast = [own = service.get()] {
    if (const auto accepted = own->last()) accepted->invalidate();
  };
  service->onEcho = [own = service.get(), endLast, way] {
    if (const auto accepted = own->last()) {
      accepted->remoteObjectProxy<Peer>()->echo("back"_text, [](Value) {});
    }
    if (*way == 0) endLast();
  };
  const std::size_t atFirst = openDescriptors(::getpid());
  const int rounds = isSanitized ? 200 : 2000;
  for (int round = 0; round < rounds; ++round) {
    *way = round % 5;
    auto each = NSXPCConnection::initWithListenerEndpoint(service->endpoint());
    each->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Peer>());
    each->setExportedObject(std::make_shared<Callee>());
    each->setInvalidationHandler([times = std::make_shared<int>()] { ++*times; });
    each->resume();
    auto proxy = each->remoteObjectProxyWithErrorHandler<Peer>([](auto) {});
    for (int i = 0; i < 5; ++i) proxy->echo(i, [](Value) {});
    std::future<void> other;
    if (*way == 1) other = std::async(std::launch::async, [&] { each->invalidate(); });
    if (*way == 2) proxy->echo({}, [own = each](Value) mutable { own.reset(); });
    if (*way == 3) proxy->echo({}, [endLast, keep = service](Value) { endLast(); });
    if (*way != 4) ask(each, 1);
    proxy.reset();
    if (other.valid()) other.wait();
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors(::getpid()) <= atFirst; }));
}

}  // namespace
}  // namespace Platform
