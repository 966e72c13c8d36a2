// What a broken or malicious peer may do to the agent: end its own connection, and nothing else.

#include "Tests/Robustness/HostilePeer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <thread>

#include "Tests/Robustness/AgentTest.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
using TestSupport::ChildProcess;
using TestSupport::eventually;
using TestSupport::isSanitized;
using TestSupport::openDescriptors;

constexpr std::size_t answerSize = 13;  // Frames::yes and Frames::nil

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// While a test runs, a bystander keeps asking the agent. When it ends, every answer must have been
// right, and the agent must hold what it held at first.
class HostilePeers : public AgentTest {
 protected:
  HostilePeers() : agent(startAgent()), listener(NSXPCListener::anonymousListener()) {
    EXPECT_EQ(control->registerEndpoint(listener->endpoint(), "bystander"_text), true);
    std::promise<void> started;
    bystander = std::thread([&] {
      const auto handle = connect();
      while (!isOver) {
        const auto found = handle->retrieveEndpoint("bystander"_text);
        if (!found || inode(*found) != inode(listener->endpoint())) ++wrong;
        if (++answers == 1) started.set_value();
      }
    });
    started.get_future().wait();
    EXPECT_TRUE(eventually([&] {
      descriptors = openDescriptors(agent.pid());
      return descriptors == openDescriptors(agent.pid());
    }));
    memory = anonymousMemory();
  }

  ~HostilePeers() override {
    EXPECT_TRUE(eventually([&] { return openDescriptors(agent.pid()) == descriptors; }))
        << openDescriptors(agent.pid()) << " instead of " << descriptors;
    const int sofar = answers;
    EXPECT_TRUE(eventually([&] { return answers > sofar; }));
    isOver = true;
    bystander.join();
    EXPECT_EQ(wrong, 0) << "of " << answers;
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(agent.pid()) +
                                                    "/task");
    EXPECT_LE(std::distance(begin(tasks), end(tasks)), 16);
    // Sanitizers keep what is freed.
    if (!isSanitized) {
      EXPECT_LE(anonymousMemory(), memory + (24 << 10)) << "KiB";
    }
  }

  std::size_t anonymousMemory() const {  // KiB
    std::ifstream status("/proc/" + std::to_string(agent.pid()) + "/status");
    std::string word;
    while (status >> word && word != "RssAnon:") {
    }
    std::size_t size = 0;
    status >> size;
    return size;
  }

  HostilePeer peer() const { return HostilePeer(socketPath()); }

  // What the agent answers to all that a peer ever sends.
  Bytes answerTo(const Bytes& stream, const std::vector<int>& passed = {}) const {
    HostilePeer hostile = peer();
    hostile.send(stream, passed);
    hostile.finishSending();
    return hostile.readToEnd();
  }

  ChildProcess agent;
  std::shared_ptr<NSXPCListener> listener;
  std::shared_ptr<EndPointHandler> control = connect();
  std::size_t descriptors = 0;
  std::size_t memory = 0;
  std::atomic<bool> isOver = false;
  std::atomic<int> answers = 0;
  std::atomic<int> wrong = 0;
  std::thread bystander;
};

TEST_F(HostilePeers, MayStopInsideAnyMessageOrChangeAnyByteOfIt) {
  const std::string identifier = "attack";
  const int endpoint = listener->endpoint()->descriptor();
  const struct {
    Bytes frame;
    std::vector<int> passed;
  } kinds[] = {{Frames::remove(identifier), {}},
               {Frames::retrieve(1, identifier), {}},
               {Frames::enroll(1, identifier), {endpoint}},
               {Frames::yes(1), {}},
               {Frames::refusal(1), {}}};
  for (const auto& [frame, passed] : kinds) {
    for (std::size_t length = 1; length < frame.size(); ++length) {
      EXPECT_EQ(answerTo({frame.begin(), frame.begin() + static_cast<long>(length)}, passed),
                Bytes());
    }
    for (std::size_t i = 0; i < frame.size(); ++i) {
      for (const int change : {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0xFF}) {
        if (isSanitized && change != 0x01 && change != 0x80) continue;
        Bytes changed = frame;
        changed[i] ^= static_cast<std::byte>(change);
        answerTo(changed, passed);
      }
    }
  }
  // Many changes registered it all the same, or made another identifier of it.
  for (std::size_t i = 0; i < identifier.size(); ++i) {
    for (int bits = 0; bits < 256; bits = bits ? 2 * bits : 1) {
      std::string changed = identifier;
      changed[i] = static_cast<char>(changed[i] ^ bits);
      if (const auto text = Text::fromUtf8(changed)) control->removeEndpoint(*text);
    }
  }
  EXPECT_TRUE(control->retrieveEndpoint({}));
}

TEST_F(HostilePeers, MayLie) {
  const auto payload = [](std::initializer_list<int> numbers) {
    Bytes bytes;
    for (const int number : numbers) bytes.push_back(static_cast<std::byte>(number));
    return bytes;
  };
  const Bytes deep(100'000, std::byte{0x81});
  const Bytes deepMaps(100'000, std::byte{0xA1});
  const Bytes lies[] = {
      frameOf({}, 0, (256u << 20) + 1),  // longer than allowed
      frameOf({}, 0, UINT32_MAX),
      frameOf({}, 254),  // more descriptors than allowed
      frameOf({}, UINT32_MAX),
      frameOf({}),                     // no item
      frameOf(payload({0x83, 0x00})),  // items missing
      frameOf(payload({0x9B, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00})),
      frameOf(payload({0x83, 0x00, 0x7B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})),
      frameOf(payload({0x83, 0x00, 0x9F, 0xFF})),              // indefinite length
      frameOf(payload({0x83, 0x04, 0x61, 0x61, 0x80})),        // no such kind
      frameOf(payload({0x82, 0x02, 0x01})),                    // a reply without values
      frameOf(payload({0x83, 0x00, 0x61, 0xFF, 0x80})),        // not UTF-8
      frameOf(payload({0x83, 0x00, 0x61, 0x61, 0x80, 0x00})),  // something behind
      frameOf(payload({0x83, 0x18, 0x00, 0x61, 0x61, 0x80})),  // not the shortest form
      frameOf(deep),
      frameOf(payload({0x83, 0x00, 0x61, 0x61}) + deep),
      frameOf(payload({0x83, 0x00, 0x61, 0x61}) + deepMaps),
      Frames::enroll(1, "a", 2),     // one descriptor is missing
      Frames::enroll(1, "a", 1, 1),  // another index
  };
  for (const Bytes& lie : lies) {
    HostilePeer hostile = peer();
    hostile.send(lie, {listener->endpoint()->descriptor()});
    EXPECT_EQ(hostile.readToEnd(), Bytes()) << "at " << &lie - lies;
  }
  // Claims cost the agent nothing, half a frame only its bytes.
  std::vector<HostilePeer> silent;
  for (int i = 0; i < 200; ++i) {
    silent.push_back(peer());
    silent.back().send(frameOf(payload({0x83}), 253, 256u << 20));
  }
}

TEST_F(HostilePeers, MayMisuseSerialsAndAnswerWhatWasNeverAsked) {
  HostilePeer hostile = peer();
  const Bytes stream = Frames::yes(7) + Frames::refusal(7) + Frames::retrieve(7, "no") +
                       Frames::retrieve(7, "no") + Frames::nil(7) + Frames::retrieve(8, "no");
  for (const std::byte byte : stream) hostile.send({&byte, 1});
  EXPECT_EQ(hostile.read(3 * answerSize), Frames::nil(7) + Frames::nil(7) + Frames::nil(8));
}

TEST_F(HostilePeers, MaySendDescriptorsOfEveryKindAndAnyNumber) {
  int pipe[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  HostilePeer hostile = peer();
  const UniqueFd kinds[] = {UniqueFd(pipe[0]),
                            UniqueFd(pipe[1]),
                            UniqueFd(pair[0]),
                            UniqueFd(pair[1]),
                            UniqueFd(::open("/dev/zero", O_RDWR | O_CLOEXEC)),
                            UniqueFd(::open("/dev/ptmx", O_RDWR | O_CLOEXEC | O_NOCTTY)),
                            UniqueFd(::open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
                            UniqueFd(::open("/tmp", O_PATH | O_CLOEXEC)),
                            UniqueFd(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC)),
                            UniqueFd(::open("/proc/self/exe", O_PATH | O_CLOEXEC)),
                            UniqueFd(::memfd_create("memory", MFD_CLOEXEC)),
                            UniqueFd(::epoll_create1(EPOLL_CLOEXEC)),
                            bindTo(directory.path() + "/listening"),
                            UniqueFd(::dup(hostile.socket()))};
  for (const UniqueFd& kind : kinds) {
    hostile.send(Frames::enroll(1, "kind"), {kind.get()});
    EXPECT_EQ(hostile.read(Frames::refusal(1).size()), Frames::refusal(1)) << &kind - kinds;
  }
  EXPECT_EQ(found("kind"_text), 0u);

  const int endpoint = listener->endpoint()->descriptor();
  std::vector<int> many(253, hostile.socket());
  many[252] = endpoint;
  hostile.send(Frames::enroll(2, "many", 253, 252), many);
  EXPECT_EQ(hostile.read(answerSize), Frames::yes(2));
  EXPECT_EQ(found("many"_text), inode(listener->endpoint()));
  hostile.send(Frames::remove("many"));
  HostilePeer undeclared = peer();
  undeclared.send(Frames::retrieve(1, "no"), {endpoint, undeclared.socket()});
  undeclared.readToEnd();
  HostilePeer hoarder = peer();
  hoarder.send(frameOf({}, 253, 100), many);
  while (hoarder.send(bytesOf("x"), many) != 0) {
  }
  EXPECT_EQ(hoarder.readToEnd(), Bytes());
}

TEST_F(HostilePeers, MayAskWithoutReading) {
  HostilePeer hostile = peer();
  Bytes requests;
  constexpr std::size_t requestsAtOnce = 500;
  for (std::size_t i = 0; i < requestsAtOnce; ++i) requests = requests + Frames::retrieve(1, "no");
  const std::size_t requestSize = requests.size() / requestsAtOnce;
  // Until nothing goes any more, while the bystander got a thousand answers: the agent has stopped
  // reading.
  std::size_t sent = 0;
  for (int since = answers; answers < since + 1000;) {
    const std::size_t count = hostile.send(std::span(requests).subspan(sent % requestSize));
    sent += count;
    if (count != 0) since = answers;
    ASSERT_LT(sent, 16u << 20);
  }
  if (!isSanitized) {
    EXPECT_LE(anonymousMemory(), memory + (24 << 10)) << "KiB, unread";
  }
  const std::size_t expected = sent / requestSize * answerSize;
  EXPECT_EQ(hostile.read(expected).size(), expected);
}

TEST_F(HostilePeers, MayComeAndGoAndBeMany) {
  const int visits = isSanitized ? 1000 : 10'000;
  for (int i = 0; i < visits; ++i) {
    HostilePeer hostile = peer();
    if (i % 2) hostile.send(Frames::retrieve(1, "no"));
  }
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  const std::size_t crowd = std::min<std::size_t>(isSanitized ? 1000 : 5000, limit.rlim_max - 100);
  std::vector<HostilePeer> peers;
  while (peers.size() < crowd) {
    peers.push_back(peer());
    peers.back().send(Frames::retrieve(1, "no"));
  }
  for (HostilePeer& hostile : peers) EXPECT_EQ(hostile.read(answerSize), Frames::nil(1));
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
