#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "Platform/XPC/Codec.h"

namespace Platform {
namespace {

struct Node {
  std::int8_t number = 0;
  std::optional<Text> note = {};
  std::vector<Node> children = {};

  static consteval auto fields() {
    return Fields(field<&Node::number>("number"), field<&Node::note>("note"),
                  field<&Node::children>("children"));
  }
  bool operator==(const Node&) const = default;
};

using Lists = std::map<Text, std::vector<std::optional<bool>>>;

struct Everything {
  bool yes;
  std::uint64_t large;
  std::int64_t small;
  double real;
  Data data;
  NSDate date;
  Value value;
  std::vector<bool> bits;
  Lists lists;
  Node tree;

  static consteval auto fields() {
    return Fields(field<&Everything::yes>("yes"), field<&Everything::large>("large"),
                  field<&Everything::small>("small"), field<&Everything::real>("real"),
                  field<&Everything::data>("data"), field<&Everything::date>("date"),
                  field<&Everything::value>("value"), field<&Everything::bits>("bits"),
                  field<&Everything::lists>("lists"), field<&Everything::tree>("tree"));
  }
  bool operator==(const Everything&) const = default;
};

Frame frameWith(std::vector<std::byte> payload) {
  Frame frame;
  frame.keep(std::move(payload));
  return frame;
}

Frame frameOf(const std::function<void(Encoder&)>& write) {
  Encoder encoder;
  write(encoder);
  const OutgoingFrame frame = encoder.finish();
  return frameWith({frame.bytes.begin() + Wire::headerSize, frame.bytes.end()});
}

enum class Fate { read, refused, malformed };

template <class T>
Fate fateOf(Frame frame, T&& read = {}) {
  Decoder decoder(frame);
  decode(decoder, read);
  if (decoder.isMalformed()) return Fate::malformed;
  return decoder.isWrongClass() ? Fate::refused : Fate::read;
}

template <class T>
Fate fateOf(const Value& sent) {
  return fateOf<T>(frameOf([&](Encoder& encoder) { encode(encoder, sent); }));
}

TEST(Types, AreOnTheWireWhatTheyAreAsValues) {
  const Everything everything{
      .yes = true,
      .large = UINT64_MAX,
      .small = INT64_MIN,
      .real = 3,
      .data = {std::byte{1}},
      .date = {-1},
      .value = Array{Value(), 5},
      .bits = {true, false},
      .lists = {{"\u00e9"_text, {true, std::nullopt}}},
      .tree = {.number = -128, .children = {{.number = 127, .note = ""_text}}}};
  const Value value = Dictionary{
      {"yes"_text, true},
      {"large"_text, UINT64_MAX},
      {"small"_text, INT64_MIN},
      {"real"_text, 3.0},
      {"data"_text, Data{std::byte{1}}},
      {"date"_text, NSDate{-1}},
      {"value"_text, Array{Value(), 5}},
      {"bits"_text, Array{true, false}},
      {"lists"_text, Dictionary{{"e\u0301"_text, Array{true, Value()}}}},
      {"tree"_text, Dictionary{{"number"_text, -128},
                               {"note"_text, Value()},
                               {"children"_text, Array{Dictionary{{"number"_text, 127},
                                                                  {"note"_text, ""_text},
                                                                  {"children"_text, Array{}}}}}}}};
  Value readValue;
  EXPECT_EQ(fateOf(frameOf([&](Encoder& encoder) { encode(encoder, everything); }), readValue),
            Fate::read);
  EXPECT_EQ(readValue, value);
  Everything read{};
  EXPECT_EQ(fateOf(frameOf([&](Encoder& encoder) { encode(encoder, value); }), read), Fate::read);
  EXPECT_EQ(read, everything);
}

TEST(Types, AreNotTakenForEachOther) {
  EXPECT_EQ(fateOf<std::int8_t>(128), Fate::refused);
  EXPECT_EQ(fateOf<std::int8_t>(-129), Fate::refused);
  EXPECT_EQ(fateOf<unsigned>(-1), Fate::refused);
  EXPECT_EQ(fateOf<unsigned>(4294967296), Fate::refused);
  EXPECT_EQ(fateOf<std::int64_t>(UINT64_MAX), Fate::refused);
  EXPECT_EQ(fateOf<int>(1.0), Fate::refused);
  EXPECT_EQ(fateOf<double>(1), Fate::refused);
  EXPECT_EQ(fateOf<bool>(1), Fate::refused);
  EXPECT_EQ(fateOf<Data>(Array{1}), Fate::refused);
  EXPECT_EQ(fateOf<Text>(Data{}), Fate::refused);
  EXPECT_EQ(fateOf<NSDate>(1.0), Fate::refused);
  EXPECT_EQ(fateOf<int>(Value()), Fate::refused);
  EXPECT_EQ(fateOf<std::vector<int>>(Array{1, "two"_text, Array{}}), Fate::refused);
  EXPECT_EQ(fateOf<Lists>(Array{}), Fate::refused);
  EXPECT_EQ(fateOf<Lists>(Dictionary{{"a"_text, Array{0}}, {"b"_text, Array{}}}), Fate::refused);
  EXPECT_EQ(fateOf<Node>(Dictionary{{"number"_text, 1}}), Fate::refused);
}

TEST(Types, OfOneNameMayBeOfSeveralVersions) {
  const Dictionary newer{
      {"children"_text, Array{}}, {"new"_text, Array{Dictionary{}}}, {"number"_text, 1}};
  EXPECT_EQ(fateOf<Node>(newer), Fate::read);
}

// Each stands for what a peer could send to have more memory taken than it sends itself.
TEST(Types, GrowWithWhatArrives) {
  const auto claim = [](std::size_t count, std::size_t sent) {
    return frameOf([=](Encoder& encoder) {
      encoder.head(Wire::Major::array, count);
      for (std::size_t i = 0; i < sent; ++i) encoder.head(Wire::Major::map, 0);
    });
  };
  EXPECT_EQ(fateOf<std::vector<Lists>>(claim(Wire::mostItems, Wire::mostItems)), Fate::read);
  EXPECT_EQ(fateOf<std::vector<Lists>>(claim(Wire::mostItems + 1, Wire::mostItems + 1)),
            Fate::malformed);
  EXPECT_EQ(fateOf<std::vector<Lists>>(claim(Wire::mostItems, 1000)), Fate::malformed);
  struct Wide {
    std::optional<Everything> one, two, three;
    static consteval auto fields() { return Fields(field<&Wide::one>("one")); }
  };
  EXPECT_EQ(fateOf<std::vector<Wide>>(claim(1000, 1000)), Fate::read);
  EXPECT_EQ(fateOf<std::vector<Wide>>(claim(Wire::mostItems, Wire::mostItems)), Fate::refused);

  const auto nested = [](int levels) {
    return frameOf([=](Encoder& encoder) {
      for (int i = 0; i < levels; ++i) {
        encoder.head(Wire::Major::map, 2);
        encoder.text("number");
        encode(encoder, 1);
        encoder.text("children");
        encoder.head(Wire::Major::array, i + 1 < levels);
      }
    });
  };
  EXPECT_EQ(fateOf<Node>(nested(Wire::deepestNesting / 2)), Fate::read);
  EXPECT_EQ(fateOf<Node>(nested(Wire::deepestNesting / 2 + 1)), Fate::malformed);
}

TEST(Types, HaveFieldsAndKeysOnce) {
  const auto twice = frameOf([](Encoder& encoder) {
    encoder.head(Wire::Major::map, 2);
    for (int i = 0; i < 2; ++i) {
      encoder.text("a");
      encoder.head(Wire::Major::array, 0);
    }
  });
  struct A {
    std::vector<int> a;
    static consteval auto fields() { return Fields(field<&A::a>("a")); }
  };
  EXPECT_EQ(fateOf<A>(frameWith(twice.kept)), Fate::malformed);
  EXPECT_EQ(fateOf<Lists>(frameWith(twice.kept)), Fate::malformed);
  EXPECT_EQ(fateOf<Value>(frameWith(twice.kept)), Fate::malformed);
}

}  // namespace
}  // namespace Platform
