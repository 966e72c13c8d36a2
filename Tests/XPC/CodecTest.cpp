#include "Platform/XPC/Codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/XPC/FrameReader.h"
#include "Tests/Support/TestProcess.h"

namespace Platform {
namespace {

TEST(FrameReader, CutsTheSameFramesFromAnySplit) {
  const Value values[] = {"first"_text, Value(), Array{1, 2, 3}};
  std::vector<std::byte> stream;
  for (const Value& value : values) {
    Encoder encoder;
    encode(encoder, value);
    const OutgoingFrame frame = encoder.finish();
    stream.insert(stream.end(), frame.bytes.begin(), frame.bytes.end());
  }
  for (std::size_t step = 1; step <= stream.size(); ++step) {
    FrameReader reader;
    std::vector<Frame> frames;
    for (std::size_t at = 0; at < stream.size(); at += step) {
      const std::size_t count = std::min(step, stream.size() - at);
      ASSERT_TRUE(reader.feed(std::span(stream).subspan(at, count), {}, frames));
    }
    ASSERT_EQ(frames.size(), std::size(values)) << step;
    for (std::size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(Decoder(frames[i]).value(), values[i]);
    }
  }
}

TEST(FrameReader, GivesDescriptorsToTheFramesThatDeclareThemAndClosesTheRest) {
  const std::size_t before = TestSupport::openDescriptors(::getpid());
  {
    std::vector<UniqueFd> descriptors;
    for (int i = 0; i < 4; ++i) descriptors.emplace_back(::open("/", O_PATH | O_CLOEXEC));
    std::vector<std::byte> headers(2 * Wire::headerSize);
    headers[4] = std::byte{2};
    headers[Wire::headerSize + 4] = std::byte{1};
    FrameReader reader;
    std::vector<Frame> frames;
    EXPECT_TRUE(reader.feed(headers, std::move(descriptors), frames));
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].descriptors.size(), 2u);
    EXPECT_EQ(frames[1].descriptors.size(), 1u);
    EXPECT_TRUE(reader.hasUndeclaredDescriptors());
  }
  EXPECT_EQ(TestSupport::openDescriptors(::getpid()), before);
}

}  // namespace
}  // namespace Platform
