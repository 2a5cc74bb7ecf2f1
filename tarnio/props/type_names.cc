#include "tarnio/props/type_names.h"

#include <stdexcept>
#include <unordered_map>

namespace Tarn::props {

namespace {

struct NameTable {
  std::vector<std::pair<DataType, std::string>> ordered;
  std::unordered_map<DataType, std::size_t> place;

  NameTable() {
    const auto add = [this](DataType code) {
      place.emplace(code, ordered.size());
      ordered.emplace_back(code, tarn_dt_get_name(code));
    };
    add(dt::logical);
    add(dt::cplx_logical);
    for (const DataType code : {dt::uint8, dt::uint16, dt::uint32, dt::uint64, dt::int8, dt::int16,
                                dt::int32, dt::int64, dt::single, dt::double_}) {
      add(code);
      add(code | dt::complex_flag);
    }
    for (const DataType code : {dt::empty, dt::cell, dt::struct_, dt::char_, dt::none}) add(code);
  }
};

const NameTable& table() {
  static const NameTable names;
  return names;
}

const std::string* find_name(DataType code) {
  const auto found = table().place.find(code & dt::name_mask);
  return found != table().place.end() ? &table().ordered[found->second].second : nullptr;
}

}  // namespace

const std::string& type_name(DataType code) {
  if (const std::string* name = find_name(code)) return *name;
  throw std::runtime_error("Map entry not found and no default specified.");
}

const std::string& type_name(DataType code, const std::string& fallback) {
  const std::string* name = find_name(code);
  return name != nullptr ? *name : fallback;
}

const std::vector<std::pair<DataType, std::string>>& type_names() { return table().ordered; }

}  // namespace Tarn::props
