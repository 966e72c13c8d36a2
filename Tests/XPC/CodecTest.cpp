#include "Platform/XPC/Codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/XPC/FrameReader.h"
#include "Tests/Support/TestProcess.h"

namespace Platform {
namespace {

OutgoingFrame frameOf(const Value& value) {
  Encoder encoder;
  encode(encoder, value);
  return encoder.finish();
}

Frame payloadOf(const Value& value) {
  OutgoingFrame outgoing = frameOf(value);
  return {{outgoing.bytes.begin() + Wire::headerSize, outgoing.bytes.end()}, {}};
}

const Value sample = Dictionary{{"n"_text, Array{0, 23, 24, 65536, -1, INT64_MIN, UINT64_MAX}},
                                {"caf\u00e9"_text, Array{true, Value(), 1.5, NSDate{-1.0}}},
                                {"d"_text, Data{std::byte{1}, std::byte{2}}}};

TEST(Codec, TakesNoPrefixForTheWhole) {
  const Frame whole = payloadOf(sample);
  for (std::size_t length = 0; length < whole.payload.size(); ++length) {
    Frame prefix{{whole.payload.begin(), whole.payload.begin() + static_cast<long>(length)}, {}};
    Decoder building(prefix);
    building.value();
    EXPECT_TRUE(building.isMalformed()) << length;
    Decoder skipping(prefix);
    skipping.skip();
    EXPECT_TRUE(skipping.isMalformed()) << length;
  }
}

// What a flipped bit makes of it is anything, but building and skipping judge alike, and what is
// taken is written back to the same bytes: there is one form for each value.
TEST(Codec, JudgesEverySingleByteChangeTheSameWayTwice) {
  const Frame whole = payloadOf(sample);
  for (std::size_t i = 0; i < whole.payload.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      Frame changed{whole.payload, {}};
      changed.payload[i] ^= static_cast<std::byte>(1 << bit);
      Decoder building(changed);
      const Value value = building.value();
      Decoder skipping(changed);
      skipping.skip();
      const bool isWhole = building.isSound() && building.isAtEnd();
      EXPECT_EQ(isWhole, skipping.isSound() && skipping.isAtEnd()) << i << " bit " << bit;
      if (isWhole && value.asDictionary() && value.asDictionary()->size() == 3) {
        EXPECT_EQ(payloadOf(value).payload.size(), changed.payload.size());
      }
    }
  }
}

TEST(Codec, NeverAllocatesWhatIsOnlyClaimed) {
  for (const int first : {0x5B, 0x7B, 0x9B, 0xBB}) {
    Frame lie{{static_cast<std::byte>(first)}, {}};
    lie.payload.insert(lie.payload.end(), 8, std::byte{0x7F});
    Decoder decoder(lie);
    decoder.value();
    EXPECT_TRUE(decoder.isMalformed());
  }
}

TEST(FrameReader, CutsTheSameFramesFromAnySplit) {
  std::vector<std::byte> stream;
  for (const Value& value : {Value("first"_text), Value(), Value(Array{1, 2, 3})}) {
    const OutgoingFrame frame = frameOf(value);
    stream.insert(stream.end(), frame.bytes.begin(), frame.bytes.end());
  }
  for (std::size_t step = 1; step <= stream.size(); ++step) {
    FrameReader reader;
    std::vector<Frame> frames;
    for (std::size_t at = 0; at < stream.size(); at += step) {
      const std::size_t count = std::min(step, stream.size() - at);
      ASSERT_TRUE(reader.feed(std::span(stream).subspan(at, count), {}, frames));
    }
    ASSERT_EQ(frames.size(), 3u) << step;
    Decoder decoder(frames[2]);
    EXPECT_EQ(decoder.value(), Value(Array{1, 2, 3}));
  }
}

TEST(FrameReader, GivesDescriptorsToTheFramesThatDeclareThemAndClosesTheRest) {
  const auto header = [](std::uint8_t payload, std::uint8_t descriptors) {
    std::vector<std::byte> bytes(Wire::headerSize + payload);
    bytes[0] = std::byte{payload};
    bytes[4] = std::byte{descriptors};
    return bytes;
  };
  const auto some = [](int count) {
    std::vector<UniqueFd> descriptors;
    for (int i = 0; i < count; ++i) descriptors.emplace_back(::open("/", O_PATH | O_CLOEXEC));
    return descriptors;
  };
  const std::size_t before = TestSupport::openDescriptors(::getpid());
  {
    FrameReader reader;
    std::vector<Frame> frames;
    std::vector<std::byte> two = header(1, 2);
    const std::vector<std::byte> one = header(1, 1);
    two.insert(two.end(), one.begin(), one.end());
    EXPECT_TRUE(reader.feed(two, some(3), frames));
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].descriptors.size(), 2u);
    EXPECT_EQ(frames[1].descriptors.size(), 1u);
    EXPECT_FALSE(reader.hasUndeclaredDescriptors());
    EXPECT_TRUE(reader.feed(header(0, 0), some(1), frames));
    EXPECT_TRUE(reader.hasUndeclaredDescriptors());

    FrameReader missing;
    EXPECT_FALSE(missing.feed(header(1, 2), some(1), frames));
    FrameReader flooded;
    EXPECT_TRUE(flooded.feed({}, some(253), frames));
    EXPECT_TRUE(flooded.feed({}, some(253), frames));
    EXPECT_FALSE(flooded.feed({}, some(1), frames));
    for (const std::size_t wrong : {3u, 4u + 1u}) {  // 256 MiB and more; 256 descriptors and more
      std::vector<std::byte> lie = header(0, 0);
      lie[wrong] = std::byte{0x11};
      FrameReader reading;
      EXPECT_FALSE(reading.feed(lie, {}, frames));
    }
  }
  EXPECT_EQ(TestSupport::openDescriptors(::getpid()), before);
}

}  // namespace
}  // namespace Platform
