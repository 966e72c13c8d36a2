// A peer's stream of bytes and descriptors, in chunks of any size, as either end of a connection
// takes it: the exporting end carries out calls and messages, the calling end reads replies.
//
// The input is a sequence of chunks: a byte for their size, a byte for the descriptors that come
// along (their number in the low bits, their kind in the high ones), and the bytes.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "Fuzz/Require.h"
#include "Platform/XPC/FrameReader.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Shared/Communication.h"
#include "Shared/EndPointHandling.h"

using namespace Platform;
using namespace Gantrel_Sync_Helper;

namespace {

UniqueFd endpointDescriptor() {
  static const int endpoint = [] {
    char directory[] = "/tmp/gantrel-fuzz-XXXXXX";
    require(::mkdtemp(directory) != nullptr);
    ::setenv("XDG_RUNTIME_DIR", directory, 1);
    const auto listener = NSXPCListener::anonymousListener();
    require(listener != nullptr);
    const int kept = ::dup(listener->endpoint()->descriptor());
    ::rmdir((std::string(directory) + "/gantrel").c_str());
    ::rmdir(directory);
    return kept;
  }();
  return UniqueFd(::dup(endpoint));
}

UniqueFd descriptorOf(unsigned kind) {
  static int pair[2];
  [[maybe_unused]] static const int made = ::socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
  switch (kind % 4) {
    case 0:
      return endpointDescriptor();
    case 1:
      return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    case 2:
      return UniqueFd(::open("/", O_PATH | O_CLOEXEC));
    default:
      return UniqueFd(::dup(pair[0]));
  }
}

// Takes whatever it is called with, once, and answers.
class Exported final : public NSObject, public EndPointHandling {
 public:
  void registerListenerEndpoint(EndpointRef endpoint, Text, Reply<bool> reply) override {
    require(endpoint != nullptr);
    reply(true);
  }
  void retrieveListenerEndpoint(Text, Reply<std::optional<EndpointRef>> reply) override {
    reply(std::nullopt);
  }
  void removeListenerEndpoint(Text identifier) override {
    require(Text::isUtf8(identifier.utf8()));
  }
};

class Application final : public NSObject, public Communication {
 public:
  void openMeetingWithId(Text) override {}
  void createNewMeeting() override {}
  void fetchUpcomingMeetings(Reply<Value> reply) override { reply({}); }
  void displaySyncing() override {}
  void displayNotSyncing() override {}
};

struct Source final : RequestSource {
  void answer(std::uint64_t, OutgoingFrame&& frame) override { require(frame.isSendable()); }
  void requestIsDone(std::uint64_t) override {}
};

template <class Interface, class Object>
void dispatchTo(Object& object, std::string_view selector, Decoder arguments, bool isCall) {
  static const auto interface = NSXPCInterface::interfaceWithProtocol<Interface>();
  static const auto source = std::make_shared<Source>();
  IncomingRequest request(isCall ? std::optional(std::uint64_t{1}) : std::nullopt, source, 1);
  interface.dispatch(interface.implementer(&object), selector, arguments, request);
}

// Its fields are named as in the corpus.
struct Structure {
  std::map<Text, std::optional<std::uint16_t>> numbers;
  std::vector<Structure> nested;

  static consteval auto fields() {
    return Fields(field<&Structure::numbers>("id"), field<&Structure::nested>("title"));
  }
};

template <class... Values>
void readReply(Decoder decoder) {
  std::tuple<Values...> values;
  if (decoder.array() != sizeof...(Values)) decoder.wrongClass();
  std::apply([&](auto&... value) { (decode(decoder, value), ...); }, values);
}

// Descriptors are taken out of a frame once, so each reading has its own.
Frame copyOf(Frame& frame) {
  Frame copy;
  copy.keep({frame.payload.begin(), frame.payload.end()});
  copy.lacksDescriptors = frame.lacksDescriptors;
  for (const UniqueFd& descriptor : frame.descriptors.all()) {
    copy.descriptors.add(UniqueFd(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 0)));
  }
  return copy;
}

void asExporter(Frame& frame) {
  static Exported exported;
  static Application application;
  for (const bool isAgent : {true, false}) {
    Frame copy = copyOf(frame);
    Decoder decoder(copy);
    decoder.array();
    const bool isCall = decoder.unsignedInteger() == static_cast<std::uint64_t>(Wire::Kind::call);
    if (isCall) decoder.unsignedInteger();
    const std::string_view selector = decoder.text();
    if (!decoder.isSound()) continue;
    if (isAgent) {
      dispatchTo<EndPointHandling>(exported, selector, decoder, isCall);
    } else {
      dispatchTo<Communication>(application, selector, decoder, isCall);
    }
  }
}

void asCaller(Frame& frame) {
  for (int type = 0; type < 4; ++type) {
    Frame copy = copyOf(frame);
    Decoder decoder(copy);
    decoder.array();
    decoder.unsignedInteger();
    decoder.unsignedInteger();
    if (type == 0) readReply<bool>(decoder);
    if (type == 1) readReply<std::optional<EndpointRef>>(decoder);
    if (type == 2) readReply<Value>(decoder);
    if (type == 3) readReply<Structure, std::int8_t>(decoder);
  }
}

// Building a value and passing over it agree on what is well-formed, and what was built is written
// back the way it came.
void asValue(Frame& frame) {
  Frame copy = copyOf(frame);
  Decoder building(copy);
  const Value value = building.value();
  Frame again = copyOf(frame);
  Decoder skipping(again);
  skipping.skip();
  if (!building.isSound()) return;
  require(skipping.isSound() && skipping.isAtEnd() == building.isAtEnd());
  if (!building.isAtEnd() || copy.descriptors.size() != 0) return;
  Encoder encoder;
  encode(encoder, value);
  const OutgoingFrame written = encoder.finish();
  require(written.bytes.size() == frame.payload.size() + Wire::headerSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = std::as_bytes(std::span(data, size));
  FrameReader reader;
  for (std::size_t at = 0; at + 2 <= size;) {
    const std::size_t length = std::min<std::size_t>(data[at], size - at - 2);
    for (int i = 0; i < (data[at + 1] & 0x0F); ++i) {
      reader.arriving().add(descriptorOf(data[at + 1] >> 4));
    }
    // Part of a chunk's descriptors may have been lost on the way.
    const auto arrived = (data[at + 1] & 0xF0) == 0xF0 ? Arrived::some : Arrived::all;
    reader.bytesWithFewDescriptors(input.subspan(at + 2, length));
    std::vector<Frame> frames;
    const bool isSound = reader.feed(input.subspan(at + 2, length), arrived, frames);
    for (Frame& frame : frames) {
      if (frame.lacksDescriptors) continue;  // not decoded
      asExporter(frame);
      asCaller(frame);
      asValue(frame);
    }
    if (!isSound || reader.undeclaredDescriptors() != 0) break;
    at += 2 + length;
  }
  return 0;
}
