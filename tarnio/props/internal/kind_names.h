#pragma once

// The names of the kinds a property value can have in its text forms (the "type" of the XML
// form, the "#type" of the JSON form): the type names of the element codes, and "rgb" and
// "rgb32" for the two colour kinds, which have no type name.

#include <optional>
#include <string_view>

#include "tarnio/arrays/data_type.h"

namespace Tarn::props::internal {

struct KindName {
  std::string_view name;
  DataType code;
};

// Every kind with a text form, the most frequent first.
inline constexpr KindName kKindNames[] = {{"double", dt::double_},
                                          {"int32", dt::int32},
                                          {"char", dt::char_},
                                          {"struct", dt::struct_},
                                          {"logical", dt::logical},
                                          {"cell", dt::cell},
                                          {"single", dt::single},
                                          {"uint8", dt::uint8},
                                          {"int8", dt::int8},
                                          {"uint16", dt::uint16},
                                          {"int16", dt::int16},
                                          {"uint32", dt::uint32},
                                          {"uint64", dt::uint64},
                                          {"int64", dt::int64},
                                          {"rgb", dt::rgb},
                                          {"cplx_single", dt::cplx_single},
                                          {"cplx_double", dt::cplx_double},
                                          {"rgb32", dt::rgb32},
                                          {"empty", dt::empty},
                                          {"none", dt::none}};

// The name of a kind (a code without the array flag); std::runtime_error "Type unknown or
// incompatible with property arrays." for a code without one.
std::string_view kind_name(DataType code);
// The kind of a name, if it is one.
std::optional<DataType> kind_of_name(std::string_view name) noexcept;

}  // namespace Tarn::props::internal
