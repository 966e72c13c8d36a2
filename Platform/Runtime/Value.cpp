#include "Platform/Runtime/Value.h"

#include <limits>

namespace Platform {

std::optional<bool> Value::asBoolean() const {
  const auto* boolean = std::get_if<bool>(&content_);
  return boolean ? std::optional(*boolean) : std::nullopt;
}

std::optional<std::uint64_t> Value::asUnsigned() const {
  const auto* integer = std::get_if<std::uint64_t>(&content_);
  return integer ? std::optional(*integer) : std::nullopt;
}

std::optional<std::int64_t> Value::asSigned() const {
  if (const auto* negative = std::get_if<std::int64_t>(&content_)) return *negative;
  const auto* integer = std::get_if<std::uint64_t>(&content_);
  if (!integer || *integer > std::numeric_limits<std::int64_t>::max()) return std::nullopt;
  return static_cast<std::int64_t>(*integer);
}

std::optional<double> Value::asReal() const {
  const auto* real = std::get_if<double>(&content_);
  return real ? std::optional(*real) : std::nullopt;
}

}  // namespace Platform
