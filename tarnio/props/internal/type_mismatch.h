#pragma once

// The failure of a typed access (TProp::get, ValueReference::get) that finds another class held.

#include <typeinfo>

namespace Tarn::props::internal {

// Throws std::runtime_error "Type mismatch: expected '{name}' type." with the type name of the
// class asked for (TProparray<T> gives the name of T's kind), or "unknown".
[[noreturn]] void throw_type_mismatch(const std::type_info& wanted);

}  // namespace Tarn::props::internal
