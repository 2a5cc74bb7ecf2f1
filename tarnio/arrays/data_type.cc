#include "tarnio/arrays/data_type.h"

#include <algorithm>
#include <array>
#include <complex>
#include <string_view>
#include <unordered_map>

#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/prop.h"

namespace {

namespace dt = Tarn::dt;

struct TypeEntry {
  DataType code;
  const char* name;  // null for the colour codes, which print as "none"
  std::size_t size;
  const std::type_info* value_type;
  const char* description;
};

// clang-format off
constexpr std::array kTypeTable{
    TypeEntry{dt::none, "none", 0, &typeid(void), "none"},
    TypeEntry{dt::uint8, "uint8", 1, &typeid(std::uint8_t), "unsigned 8-bit integer"},
    TypeEntry{dt::int8, "int8", 1, &typeid(std::int8_t), "signed 8-bit integer"},
    TypeEntry{dt::uint16, "uint16", 2, &typeid(std::uint16_t), "unsigned 16-bit integer"},
    TypeEntry{dt::int16, "int16", 2, &typeid(std::int16_t), "signed 16-bit integer"},
    TypeEntry{dt::uint32, "uint32", 4, &typeid(std::uint32_t), "unsigned 32-bit integer"},
    TypeEntry{dt::int32, "int32", 4, &typeid(std::int32_t), "signed 32-bit integer"},
    TypeEntry{dt::single, "single", 4, &typeid(float), "32-bit IEEE float"},
    TypeEntry{dt::double_, "double", 8, &typeid(double), "64-bit IEEE float"},
    TypeEntry{dt::rgb, nullptr, 3, &typeid(_s_tarn_RGB), "RGB colour triple"},
    TypeEntry{dt::rgb32, nullptr, 4, &typeid(std::uint32_t), "RGB32 packed colour"},
    TypeEntry{dt::uint64, "uint64", 8, &typeid(std::uint64_t), "unsigned 64-bit integer"},
    TypeEntry{dt::int64, "int64", 8, &typeid(std::int64_t), "signed 64-bit integer"},
    TypeEntry{dt::cell, "cell", 0, &typeid(TProp), "nested property value"},
    TypeEntry{dt::struct_, "struct", 0, &typeid(TPropstruct), "property structure"},
    TypeEntry{dt::logical, "logical", 1, &typeid(bool), "boolean"},
    TypeEntry{dt::char_, "char", 0, &typeid(TPropstring), "character string"},
    TypeEntry{dt::empty, "empty", 0, &typeid(void), "empty value"},
    TypeEntry{dt::cplx_uint8, "cplx_uint8", 0, &typeid(void), "complex of uint8 (name only)"},
    TypeEntry{dt::cplx_int8, "cplx_int8", 0, &typeid(void), "complex of int8 (name only)"},
    TypeEntry{dt::cplx_uint16, "cplx_uint16", 0, &typeid(void), "complex of uint16 (name only)"},
    TypeEntry{dt::cplx_int16, "cplx_int16", 0, &typeid(void), "complex of int16 (name only)"},
    TypeEntry{dt::cplx_uint32, "cplx_uint32", 0, &typeid(void), "complex of uint32 (name only)"},
    TypeEntry{dt::cplx_int32, "cplx_int32", 0, &typeid(void), "complex of int32 (name only)"},
    TypeEntry{dt::cplx_single, "cplx_single", 8, &typeid(std::complex<float>),
              "complex of 32-bit float"},
    TypeEntry{dt::cplx_double, "cplx_double", 16, &typeid(std::complex<double>),
              "complex of 64-bit float"},
    TypeEntry{dt::cplx_uint64, "cplx_uint64", 0, &typeid(void), "complex of uint64 (name only)"},
    TypeEntry{dt::cplx_int64, "cplx_int64", 0, &typeid(void), "complex of int64 (name only)"},
    TypeEntry{dt::cplx_logical, "cplx_logical", 0, &typeid(void),
              "complex of logical (name only)"},
};
// clang-format on

constexpr auto kAllCodes = [] {
  std::array<DataType, kTypeTable.size()> codes{};
  std::ranges::transform(kTypeTable, codes.begin(), &TypeEntry::code);
  return codes;
}();
static_assert(std::ranges::adjacent_find(kAllCodes, std::ranges::greater_equal{}) ==
                  kAllCodes.end(),
              "the type table is kept in ascending order of codes");

constexpr const TypeEntry* find_entry(DataType dt) {
  const auto* found = std::ranges::find(kTypeTable, dt, &TypeEntry::code);
  return found != kTypeTable.end() ? found : nullptr;
}

struct NameTables {
  std::unordered_map<DataType, const char*> name_of;
  std::unordered_map<std::string_view, DataType> code_of;
};

const NameTables& name_tables() {
  static const NameTables tables = [] {
    NameTables built;
    for (const TypeEntry& entry : kTypeTable) {
      if (entry.name == nullptr) continue;
      built.name_of.emplace(entry.code, entry.name);
      built.code_of.emplace(entry.name, entry.code);
    }
    return built;
  }();
  return tables;
}

}  // namespace

std::size_t tarn_dt_get_size(DataType dt) noexcept {
  const TypeEntry* entry = find_entry(dt);
  return entry != nullptr ? entry->size : 0;
}

const char* tarn_dt_get_name(DataType dt) noexcept {
  try {
    const auto& name_of = name_tables().name_of;
    const auto found = name_of.find(dt & dt::name_mask);
    return found != name_of.end() ? found->second : name_of.at(dt::none);
  } catch (...) {
    return "none";
  }
}

DataType tarn_dt_from_name(const char* name) noexcept {
  if (name == nullptr) return dt::none;
  try {
    const auto& code_of = name_tables().code_of;
    const auto found = code_of.find(name);
    return found != code_of.end() ? found->second : dt::none;
  } catch (...) {
    return dt::none;
  }
}

const std::type_info& tarn_dt_get_type(DataType dt) noexcept {
  if ((dt & dt::array_flag) != 0) {
    const std::type_info* array_type = &typeid(void);
    Tarn::props::internal::visit_element(dt & dt::name_mask, [&](auto tag) {
      array_type = &typeid(TProparray<typename decltype(tag)::type>);
    });
    return *array_type;
  }
  const TypeEntry* entry = find_entry(dt);
  return entry != nullptr ? *entry->value_type : typeid(void);
}

namespace Tarn::arrays {

std::span<const DataType> all_data_types() noexcept { return kAllCodes; }

const char* data_type_description(DataType dt) noexcept {
  const TypeEntry* entry = find_entry(dt);
  return entry != nullptr ? entry->description : "unknown";
}

}  // namespace Tarn::arrays
