// Structures that may stand in an interface: each names its fields, once, in one line.
//
//   struct Meeting {
//     Text title;
//     std::optional<NSDate> start;
//
//     static consteval auto fields() {
//       return Fields(field<&Meeting::title>("title"), field<&Meeting::start>("start"));
//     }
//   };
//
// On the wire it is a map from these names, so it reads in any language, and the two sides need not
// be of one version: a receiver passes over names that it does not know, and takes an optional
// field that is missing for none. Another field that is missing is of the wrong class.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace Platform {

// One field of a structure, with the name under which peers know it: compared byte by byte.
template <auto Member>
struct Field {
  std::string_view name;
};

template <auto Member>
consteval Field<Member> field(std::string_view name) {
  return {name};
}

// All of them.
template <auto... Members>
struct Fields {
  consteval explicit Fields(Field<Members>... fields) : names{fields.name...} {
    for (auto name = names.begin(); name != names.end(); ++name) {
      if (std::find(names.begin(), name, *name) != name) throw "two fields have the same name";
    }
  }

  std::array<std::string_view, sizeof...(Members)> names;
};

namespace Detail {

template <class T>
inline constexpr bool areFields = false;
template <auto... Members>
inline constexpr bool areFields<Fields<Members...>> = true;

}  // namespace Detail

template <class T>
concept Structure = Detail::areFields<decltype(T::fields())>;

}  // namespace Platform
