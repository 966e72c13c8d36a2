#include "Platform/Foundation/PropertyList.h"

#include <expat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The whole of `text` as a number without a sign.
template <class Number, class... Format>
std::optional<Number> wholeNumber(std::string_view text, Format... format) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number, format...);
  if (error != std::errc() || rest != end || text.empty() || text.front() == '-')
    return std::nullopt;
  return number;
}

// Takes a sign off the front; whether it was a minus.
bool takeSign(std::string_view& text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  return negative;
}

std::optional<Value> integerValue(std::string_view text) {
  text = trimmed(text);
  const bool negative = takeSign(text);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  const auto magnitude = wholeNumber<std::uint64_t>(text, hexadecimal ? 16 : 10);
  if (!magnitude) return std::nullopt;
  if (!negative) return Value(*magnitude);
  constexpr std::uint64_t most = std::uint64_t{1} << 63;
  if (*magnitude > most) return std::nullopt;
  return Value(static_cast<std::int64_t>(~*magnitude + 1));
}

std::optional<Value> realValue(std::string_view text) {
  text = trimmed(text);
  const bool negative = takeSign(text);
  const auto magnitude = wholeNumber<double>(text);
  if (!magnitude) return std::nullopt;
  return Value(negative ? -*magnitude : *magnitude);
}

std::optional<Value> dateValue(std::string_view text) {
  text = trimmed(text);
  constexpr std::string_view form = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != form.size()) return std::nullopt;
  std::array<int, 6> fields{};  // year, month, day, hour, minute, second
  std::size_t field = 0;
  for (std::size_t i = 0; i < form.size(); ++i) {
    if (form[i] == 'd') {
      if (text[i] < '0' || text[i] > '9') return std::nullopt;
      fields[field] = fields[field] * 10 + (text[i] - '0');
    } else {
      if (text[i] != form[i]) return std::nullopt;
      ++field;
    }
  }
  const auto [year, month, day, hour, minute, second] = fields;
  const std::chrono::year_month_day calendarDay(std::chrono::year{year},
                                                std::chrono::month(static_cast<unsigned>(month)),
                                                std::chrono::day(static_cast<unsigned>(day)));
  if (!calendarDay.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const auto days =
      static_cast<double>(std::chrono::sys_days(calendarDay).time_since_epoch().count());
  return Value(NSDate{days * 86400 + hour * 3600 + minute * 60 + second});
}

int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  return c == '+' ? 62 : c == '/' ? 63 : -1;
}

std::optional<Value> dataValue(std::string_view text) {
  Data bytes;
  unsigned bits = 0;
  std::size_t digits = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (blanks.find(c) != blanks.npos) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int digit = base64Digit(c);
    if (digit < 0 || padding != 0) return std::nullopt;
    bits = (bits << 6 | static_cast<unsigned>(digit)) & 0xFFF;
    // Of four digits the second, third and fourth each complete a byte.
    const std::size_t place = digits++ % 4;
    if (place != 0) bytes.push_back(static_cast<std::byte>(bits >> (6 - 2 * place)));
  }
  if (padding > 2 || (digits + padding) % 4 != 0) return std::nullopt;
  return Value(std::move(bytes));
}

std::optional<Value> textValue(std::string utf8) {
  std::optional<Text> text = Text::fromUtf8(std::move(utf8));
  return text ? std::optional(Value(*std::move(text))) : std::nullopt;
}

enum class Element { plist, key, string, integer, real, yes, no, date, data, array, dict };

std::optional<Element> elementNamed(std::string_view name) {
  constexpr std::pair<std::string_view, Element> names[] = {
      {"plist", Element::plist},     {"key", Element::key},   {"string", Element::string},
      {"integer", Element::integer}, {"real", Element::real}, {"true", Element::yes},
      {"false", Element::no},        {"date", Element::date}, {"data", Element::data},
      {"array", Element::array},     {"dict", Element::dict},
  };
  for (const auto& [known, element] : names) {
    if (name == known) return element;
  }
  return std::nullopt;
}

bool isContainer(Element element) {
  return element == Element::plist || element == Element::array || element == Element::dict;
}

// Follows the parser and builds the value. Each method is false when the list is refused there.
class Builder {
 public:
  bool start(std::string_view name) {
    const std::optional<Element> element = elementNamed(name);
    if (!element) return false;
    if ((*element == Element::plist) != open_.empty()) return false;
    if (!open_.empty()) {
      const Open& parent = open_.back();
      if (!isContainer(parent.element)) return false;
      const bool keyIsDue = parent.element == Element::dict && !parent.key;
      if ((*element == Element::key) != keyIsDue) return false;
    }
    if (open_.size() > propertyListDepthLimit && isContainer(*element)) return false;
    open_.emplace_back(*element);
    return true;
  }

  bool characters(std::string_view characters) {
    if (open_.empty()) return false;
    Open& current = open_.back();
    if (isContainer(current.element) || current.element == Element::yes ||
        current.element == Element::no) {
      return trimmed(characters).empty();
    }
    current.text += characters;
    return true;
  }

  bool end() {
    Open closed = std::move(open_.back());
    open_.pop_back();
    std::optional<Value> value = valueOf(closed);
    if (!value) return false;
    if (open_.empty()) {
      result_ = std::move(value);
      return true;
    }
    Open& parent = open_.back();
    if (closed.element == Element::key) {
      parent.key = *value->asText();
    } else if (parent.element == Element::dict) {
      parent.entries.insert_or_assign(*std::exchange(parent.key, std::nullopt), *std::move(value));
    } else {
      parent.values.push_back(*std::move(value));
    }
    return true;
  }

  std::optional<Value> result() { return std::move(result_); }

 private:
  struct Open {
    explicit Open(Element openElement) : element(openElement) {}

    Element element;
    std::string text;
    Array values;
    Dictionary entries;
    std::optional<Text> key;  // the one whose value is due
  };

  static std::optional<Value> valueOf(Open& closed) {
    switch (closed.element) {
      case Element::plist:
        if (closed.values.size() != 1) return std::nullopt;
        return std::move(closed.values.front());
      case Element::key:
      case Element::string:
        return textValue(std::move(closed.text));
      case Element::integer:
        return integerValue(closed.text);
      case Element::real:
        return realValue(closed.text);
      case Element::yes:
        return Value(true);
      case Element::no:
        return Value(false);
      case Element::date:
        return dateValue(closed.text);
      case Element::data:
        return dataValue(closed.text);
      case Element::array:
        return Value(std::move(closed.values));
      case Element::dict:
        if (closed.key) return std::nullopt;
        return Value(std::move(closed.entries));
    }
    return std::nullopt;
  }

  std::vector<Open> open_;
  std::optional<Value> result_;
};

// One run of the XML parser. Once something is refused nothing more is built: the parser may still
// call for what it has begun.
class Reading {
 public:
  std::optional<Value> read(std::string_view bytes) {
    const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(
        XML_ParserCreate(nullptr), &XML_ParserFree);
    if (!parser) return std::nullopt;
    parser_ = parser.get();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(
        parser_,
        [](void* self, const char* name, const char**) {
          of(self).step([name](Builder& builder) { return builder.start(name); });
        },
        [](void* self, const char*) {
          of(self).step([](Builder& builder) { return builder.end(); });
        });
    XML_SetCharacterDataHandler(parser_, [](void* self, const char* characters, int length) {
      const std::string_view text(characters, static_cast<std::size_t>(length));
      of(self).step([text](Builder& builder) { return builder.characters(text); });
    });
    XML_SetStartDoctypeDeclHandler(
        parser_, [](void* self, const char*, const char*, const char*, int hasDeclarations) {
          if (hasDeclarations) of(self).refuse();
        });
    // An entity that a document type could have declared is not an error to the parser.
    XML_SetSkippedEntityHandler(parser_, [](void* self, const char*, int) { of(self).refuse(); });
    const auto length = static_cast<int>(bytes.size());
    const bool wellFormed = XML_Parse(parser_, bytes.data(), length, XML_TRUE) == XML_STATUS_OK;
    return wellFormed && !refused_ ? builder_.result() : std::nullopt;
  }

 private:
  static Reading& of(void* self) { return *static_cast<Reading*>(self); }

  template <class Step>
  void step(Step step) {
    if (!refused_ && !step(builder_)) refuse();
  }

  void refuse() {
    if (!std::exchange(refused_, true)) XML_StopParser(parser_, XML_FALSE);
  }

  XML_Parser parser_ = nullptr;
  Builder builder_;
  bool refused_ = false;
};

}  // namespace

std::optional<Value> propertyListFromData(std::string_view bytes) {
  if (bytes.size() > propertyListSizeLimit) return std::nullopt;
  return Reading().read(bytes);
}

std::optional<Value> propertyListFromFile(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.isValid() || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  std::string bytes;
  std::array<char, 16 << 10> buffer;
  for (;;) {
    const ssize_t length = ::read(file.get(), buffer.data(), buffer.size());
    if (length == 0) return propertyListFromData(bytes);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return std::nullopt;
    bytes.append(buffer.data(), static_cast<std::size_t>(length));
    if (bytes.size() > propertyListSizeLimit) return std::nullopt;
  }
}

}  // namespace Platform
