#include "tarnio/bf/internal/stack_info_json.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tarnio/errors/internal/raise.h"
#include "tarnio/props/json.h"
#include "tarnio/units/runtime_value.h"

// The object, every member optional (absent means the default):
//   "axes":           one object per axis: "label" (string), "unit" (RuntimeValue text),
//                     "col_labels" (strings), "col_positions" (numbers; the axis is then not
//                     equidistant), "xy_col_positions" ([x, y] pairs); one entry per pixel
//   "data_unit":      RuntimeValue text
//   "stack_position": "time_point", "channel", "plane", "tile" (integers), "stage_um" (3 numbers)
//   "timestamp":      100-ns ticks since the system clock's epoch
//   "tags":           {"name": {"json": value}} or {"name": {"prop": property JSON form}}
// Numbers that JSON cannot hold are the strings "NaN", "Inf" and "-Inf". Members this reader
// does not know are skipped, so that later writers can add some.

namespace Tarn::bf::internal {

namespace {

using JSON::Kind;
using JSON::Value;

[[noreturn]] void damaged(std::string_view what) {
  errors::internal::throw_tarn("Damaged stack info: {}", what);
}

Value number(double d) {
  if (std::isnan(d)) return Value("NaN");
  if (std::isinf(d)) return Value(d > 0 ? "Inf" : "-Inf");
  return Value(d);
}

double to_double(const Value& v, std::string_view where) {
  if (v.is_number()) return v.get_double();
  if (v.is_string()) {
    const std::string_view s = v.get_string();
    if (s == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (s == "Inf") return std::numeric_limits<double>::infinity();
    if (s == "-Inf") return -std::numeric_limits<double>::infinity();
  }
  damaged(fmt::format("{} is not a number.", where));
}

std::int64_t to_int64(const Value& v, std::string_view where) {
  if (!v.is_number()) damaged(fmt::format("{} is not an integer.", where));
  return v.get_int64();
}

std::string to_string(const Value& v, std::string_view where) {
  if (!v.is_string()) damaged(fmt::format("{} is not a string.", where));
  return std::string(v.get_string());
}

const Value& expect(const Value& v, Kind kind, std::string_view where) {
  if (v.kind() != kind) {
    damaged(
        fmt::format("{} is {}, not {}.", where, JSON::kind_name(v.kind()), JSON::kind_name(kind)));
  }
  return v;
}

// A list of exactly `count` items.
std::span<const Value> list_of(const Value& v, std::uint64_t count, std::string_view where) {
  expect(v, Kind::list, where);
  if (v.size() != count) {
    damaged(fmt::format("{} has {} entries instead of {}.", where, v.size(), count));
  }
  return v.items();
}

const std::string& default_unit_text() {
  static const std::string text = units::RuntimeValue().to_string();
  return text;
}

Value axis_to_json(const arrays::StackInfoInterface& info, std::uint64_t axis) {
  Value json = Value::object();
  if (!info.label(axis).empty()) json.set("label", info.label(axis));
  const std::string unit = info.units(axis).to_string();
  if (unit != default_unit_text()) json.set("unit", unit);
  if (!info.col_labels(axis).empty()) {
    Value labels = Value::list();
    for (const std::string& label : info.col_labels(axis)) labels.push_back(label);
    json.set("col_labels", std::move(labels));
  }
  if (!info.is_equidistant(axis) && !info.col_positions(axis).empty()) {
    Value positions = Value::list();
    for (double p : info.col_positions(axis)) positions.push_back(number(p));
    json.set("col_positions", std::move(positions));
  }
  if (!info.xy_col_positions(axis).empty()) {
    Value positions = Value::list();
    for (const auto& [x, y] : info.xy_col_positions(axis)) {
      positions.push_back(Value::list({number(x), number(y)}));
    }
    json.set("xy_col_positions", std::move(positions));
  }
  return json;
}

Value position_to_json(const arrays::StackPosition& position) {
  const arrays::StackPosition defaults;
  Value json = Value::object();
  const std::array<std::pair<const char*, std::int64_t>, 4> indices{{
      {"time_point", position.time_point},
      {"channel", position.channel},
      {"plane", position.plane},
      {"tile", position.tile},
  }};
  for (const auto& [name, index] : indices) {
    if (index != -1) json.set(name, index);
  }
  arrays::StackPosition stage_only = defaults;
  stage_only.stage_um = position.stage_um;
  if (!(stage_only == defaults)) {
    json.set("stage_um", Value::list({number(position.stage_um[0]), number(position.stage_um[1]),
                                      number(position.stage_um[2])}));
  }
  return json;
}

Value tag_to_json(const arrays::TagValue& tag) {
  Value json = Value::object();
  if (const auto* prop = std::get_if<TProp>(&tag)) {
    Value form;
    JSON::set_value(form, *prop);
    json.set("prop", std::move(form));
  } else {
    json.set("json", std::get<JSON::Value>(tag));
  }
  return json;
}

void apply_axis(const Value& json, std::uint64_t axis, arrays::StackInfoImp& info) {
  const std::string where = fmt::format("axis {}", axis);
  expect(json, Kind::object, where);
  const std::uint64_t size = info.shape()[axis];
  if (const Value* label = json.find("label")) {
    info.set_label(axis, to_string(*label, where + " label"));
  }
  if (const Value* unit = json.find("unit")) {
    info.set_units(axis, units::RuntimeValue::parse(to_string(*unit, where + " unit")));
  }
  if (const Value* labels = json.find("col_labels")) {
    std::vector<std::string> values;
    for (const Value& item : list_of(*labels, size, where + " col_labels")) {
      values.push_back(to_string(item, where + " column label"));
    }
    info.set_col_labels(axis, values);
  }
  if (const Value* positions = json.find("col_positions")) {
    std::vector<double> values;
    for (const Value& item : list_of(*positions, size, where + " col_positions")) {
      values.push_back(to_double(item, where + " column position"));
    }
    info.set_col_positions(axis, values);
  }
  if (const Value* positions = json.find("xy_col_positions")) {
    std::vector<std::pair<double, double>> values;
    for (const Value& item : list_of(*positions, size, where + " xy_col_positions")) {
      const auto pair = list_of(item, 2, where + " xy column position");
      values.emplace_back(to_double(pair[0], where + " xy column position"),
                          to_double(pair[1], where + " xy column position"));
    }
    info.set_xy_col_positions(axis, values);
  }
}

arrays::StackPosition position_from_json(const Value& json) {
  expect(json, Kind::object, "stack_position");
  arrays::StackPosition position;
  const std::array<std::pair<const char*, std::int64_t*>, 4> indices{{
      {"time_point", &position.time_point},
      {"channel", &position.channel},
      {"plane", &position.plane},
      {"tile", &position.tile},
  }};
  for (const auto& [name, index] : indices) {
    if (const Value* v = json.find(name)) *index = to_int64(*v, name);
  }
  if (const Value* stage = json.find("stage_um")) {
    const auto items = list_of(*stage, 3, "stage_um");
    for (std::size_t i = 0; i < 3; ++i) position.stage_um[i] = to_double(items[i], "stage_um");
  }
  return position;
}

arrays::TagValue tag_from_json(const Value& json, const std::string& name) {
  const std::string where = fmt::format("tag '{}'", name);
  expect(json, Kind::object, where);
  if (json.size() != 1) damaged(fmt::format("{} must hold exactly one value.", where));
  if (const Value* value = json.find("json")) return *value;
  if (const Value* form = json.find("prop")) {
    TProp prop;
    JSON::get_value(*form, prop);
    return prop;
  }
  damaged(fmt::format("{} is neither \"json\" nor \"prop\".", where));
}

void apply(const Value& json, arrays::StackInfoImp& info) {
  expect(json, Kind::object, "the stack info");
  const std::uint64_t rank = info.shape().size();
  if (const Value* axes = json.find("axes")) {
    const auto items = list_of(*axes, rank, "axes");
    for (std::uint64_t axis = 0; axis < rank; ++axis) apply_axis(items[axis], axis, info);
  }
  if (const Value* unit = json.find("data_unit")) {
    info.set_data_units(units::RuntimeValue::parse(to_string(*unit, "data_unit")));
  }
  if (const Value* position = json.find("stack_position")) {
    info.set_stack_position(position_from_json(*position));
  }
  if (const Value* ticks = json.find("timestamp")) {
    info.set_timestamp(
        arrays::Timestamp(arrays::Timestamp::duration(to_int64(*ticks, "timestamp"))));
  }
  if (const Value* tags = json.find("tags")) {
    expect(*tags, Kind::object, "tags");
    for (const JSON::Member& member : tags->members()) {
      const std::string name(member.key());
      info.set_tag(name, tag_from_json(member.value(), name));
    }
  }
}

}  // namespace

JSON::Value stack_info_to_json(const arrays::StackInfoInterface& info) {
  Value json = Value::object();
  const std::uint64_t rank = info.shape().size();
  Value axes = Value::list();
  bool any_axis = false;
  for (std::uint64_t axis = 0; axis < rank; ++axis) {
    Value axis_json = axis_to_json(info, axis);
    any_axis = any_axis || !axis_json.empty();
    axes.push_back(std::move(axis_json));
  }
  if (any_axis) json.set("axes", std::move(axes));

  const std::string data_unit = info.data_units().to_string();
  if (data_unit != default_unit_text()) json.set("data_unit", data_unit);
  Value position = position_to_json(info.stack_position());
  if (!position.empty()) json.set("stack_position", std::move(position));
  const std::int64_t ticks = info.timestamp().time_since_epoch().count();
  if (ticks != 0) json.set("timestamp", ticks);

  const std::vector<std::string> names = info.tags();
  if (!names.empty()) {
    Value tags = Value::object();
    for (const std::string& name : names) tags.set(name, tag_to_json(info.tag(name)));
    json.set("tags", std::move(tags));
  }
  return json;
}

void apply_stack_info_json(const JSON::Value& json, arrays::StackInfoImp& info) {
  // The JSON getters, the unit parser, the property JSON form and the info's setters report
  // what they refuse in their own words; each of those means the stored info is damaged.
  try {
    apply(json, info);
  } catch (const std::runtime_error& error) {
    damaged(error.what());
  } catch (const std::invalid_argument& error) {
    damaged(error.what());
  }
}

}  // namespace Tarn::bf::internal
