#include "tarnio/arrays/stack_info_imp.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "tarnio/arrays/shape.h"

namespace Tarn::arrays {

namespace {

constexpr unsigned kGeometryFlag = 1;
constexpr unsigned kLabelFlag = 2;
constexpr unsigned kOffsetFlag = 4;
constexpr unsigned kNameFlag = 16;
constexpr unsigned kDescriptionFlag = 32;
constexpr unsigned kTimestampFlag = 64;

// The flag of the per-pixel positions of `axis`: the axis number in the upper 16 bits.
unsigned positions_flag(std::uint64_t axis) {
  return static_cast<unsigned>(axis * 65536 + kGeometryFlag);
}

// Whether a stored value equals a new one, for the "did it change" test of the setters: NaN
// equals NaN, so that storing NaN twice signals once.
bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }
bool same(const std::pair<double, double>& a, const std::pair<double, double>& b) {
  return same(a.first, b.first) && same(a.second, b.second);
}
template <class T>
bool same(const T& a, const T& b) {
  return a == b;
}
template <class T>
bool same(const std::vector<T>& a, const std::vector<T>& b) {
  return std::ranges::equal(a, b, [](const T& x, const T& y) { return same(x, y); });
}

// Stores `value` and tells whether that changed anything. The value is stored even when it
// compares equal, so that a unit keeps the form it was given in ("1000 nm" after "1 um").
template <class T>
bool assign(T& stored, const T& value) {
  const bool changed = !same(stored, value);
  stored = value;
  return changed;
}

// std::vector<bool> hands out proxies, so its elements get their own overload.
bool assign(std::vector<bool>::reference stored, bool value) {
  const bool changed = stored != value;
  stored = value;
  return changed;
}

// The computed positions of equidistant axes follow their length and offset; drop them when
// those change so that col_positions() computes them afresh.
void forget_computed_positions(std::vector<std::vector<double>>& positions,
                               const std::vector<bool>& equidistant) {
  for (std::size_t axis = 0; axis < positions.size(); ++axis) {
    if (equidistant[axis]) positions[axis].clear();
  }
}

std::span<const std::uint64_t> fitting_sizes(const StackInfoInterface& info, const Region& region) {
  region.check_fits(info.shape());
  return region.size();
}

// The elements of `values` at start, start + step, ... (count of them), or none when
// `values` does not hold one per pixel of its axis.
template <class T>
std::vector<T> taken(const std::vector<T>& values, std::uint64_t axis_size, std::uint64_t start,
                     std::uint64_t step, std::uint64_t count) {
  std::vector<T> result;
  if (values.size() != axis_size) return result;
  result.reserve(count);
  for (std::uint64_t k = 0; k < count; ++k) result.push_back(values[start + k * step]);
  return result;
}

// What initialize() writes onto one destination axis.
struct AxisPlan {
  std::uint64_t axis;
  std::string label;
  units::RuntimeValue unit;
  bool has_geometry;  // false when no pixel is taken: length and offset stay
  double length;
  double offset;
  bool whole;  // the destination covers its axis, so the per-pixel vectors are replaced
  std::vector<std::string> col_labels;
  std::vector<double> col_positions;  // empty for an equidistant source axis
  std::vector<std::pair<double, double>> xy_col_positions;
};

// The plan for source axis `s` of `info`, taken by `source`, onto destination axis `d` of a
// stack of `shape`, taken by `destination`. The destination pitch is the source pitch times
// source step / destination step, and the offset puts destination pixel q_k at the centre of
// source pixel p_k, c(p) = (L / n) * (p + 0.5) + o. An axis taken with one pixel counts as step
// 1. Unchanged geometry (same size, step and start) is copied bit for bit.
AxisPlan plan_axis(const StackInfoInterface& info, const Region& source, std::size_t s,
                   std::span<const std::uint64_t> shape, const Region& destination, std::size_t d) {
  const std::uint64_t count = source.size()[s];
  const std::uint64_t n_s = info.shape()[s];
  const std::uint64_t n_d = shape[d];
  const std::uint64_t p = source.start()[s];
  const std::uint64_t q = destination.start()[d];
  const std::uint64_t s_step = count > 1 ? source.step()[s] : 1;
  const std::uint64_t d_step = count > 1 ? destination.step()[d] : 1;

  AxisPlan plan{
      d, info.label(s), info.units(s), false, info.length(s), info.offset(s), false, {}, {}, {}};
  const bool unchanged = n_s == n_d && s_step == d_step && p == q;
  plan.has_geometry = unchanged || count > 0;
  if (!unchanged && count > 0) {
    const double source_pitch = plan.length / static_cast<double>(n_s);
    const double pitch = source_pitch * static_cast<double>(s_step) / static_cast<double>(d_step);
    plan.offset = source_pitch * (static_cast<double>(p) + 0.5) + plan.offset -
                  pitch * (static_cast<double>(q) + 0.5);
    plan.length = pitch * static_cast<double>(n_d);
  }

  // A fitting region that starts at 0 and takes as many pixels as the axis has takes all.
  plan.whole = q == 0 && count == n_d;
  if (plan.whole) {
    plan.col_labels = taken(info.col_labels(s), n_s, p, s_step, count);
    plan.xy_col_positions = taken(info.xy_col_positions(s), n_s, p, s_step, count);
    if (!info.is_equidistant(s)) {
      plan.col_positions = taken(info.col_positions(s), n_s, p, s_step, count);
    }
  }
  return plan;
}

}  // namespace

StackInfoImp::StackInfoImp(DataType type, std::span<const std::uint64_t> sizes)
    : type_(type),
      shape_(sizes.begin(), sizes.end()),
      number_of_elements_(arrays::number_of_elements(sizes)),
      lengths_(sizes.begin(), sizes.end()),
      offsets_(sizes.size(), -0.5),
      equidistant_(sizes.size(), true),
      col_positions_(sizes.size()),
      xy_col_positions_(sizes.size()),
      col_labels_(sizes.size()),
      labels_(sizes.size()),
      units_(sizes.size()) {}

StackInfoImp::StackInfoImp(const StackInfoInterface& info, DataType type)
    : StackInfoImp(type, info.shape()) {
  initialize(info, Region::whole(info.shape()), Region::whole(shape_));
}

StackInfoImp::StackInfoImp(const StackInfoInterface& info, const Region& region)
    : StackInfoImp(info.get_dt(), fitting_sizes(info, region)) {
  initialize(info, region, Region::whole(shape_));
}

StackInfoImp::StackInfoImp(const StackInfoInterface& info, const Region& source,
                           const Region& destination)
    : StackInfoImp(info.get_dt(), destination.size()) {
  initialize(info, source, destination);
}

// A copy starts without an open deferral: nobody would close the original's in it.
StackInfoImp::StackInfoImp(const StackInfoImp& other)
    : StackInfoInterface(other),
      type_(other.type_),
      shape_(other.shape_),
      number_of_elements_(other.number_of_elements_),
      lengths_(other.lengths_),
      offsets_(other.offsets_),
      equidistant_(other.equidistant_),
      col_positions_(other.col_positions_),
      xy_col_positions_(other.xy_col_positions_),
      col_labels_(other.col_labels_),
      labels_(other.labels_),
      units_(other.units_),
      data_units_(other.data_units_),
      name_(other.name_),
      description_(other.description_),
      stack_position_(other.stack_position_),
      timestamp_(other.timestamp_),
      tags_(other.tags_),
      locked_(other.locked_) {}

StackInfoImp::StackInfoImp(StackInfoImp&& other) noexcept
    : StackInfoInterface(std::move(other)),
      type_(other.type_),
      shape_(std::move(other.shape_)),
      number_of_elements_(std::exchange(other.number_of_elements_, 0)),
      lengths_(std::move(other.lengths_)),
      offsets_(std::move(other.offsets_)),
      equidistant_(std::move(other.equidistant_)),
      col_positions_(std::move(other.col_positions_)),
      xy_col_positions_(std::move(other.xy_col_positions_)),
      col_labels_(std::move(other.col_labels_)),
      labels_(std::move(other.labels_)),
      units_(std::move(other.units_)),
      data_units_(std::move(other.data_units_)),
      name_(std::move(other.name_)),
      description_(std::move(other.description_)),
      stack_position_(other.stack_position_),
      timestamp_(other.timestamp_),
      tags_(std::move(other.tags_)),
      locked_(other.locked_) {}

StackInfoImp::~StackInfoImp() = default;

int StackInfoImp::type() const { return type_; }
const std::vector<std::uint64_t>& StackInfoImp::shape() const { return shape_; }

void StackInfoImp::resize_last_axis(std::uint64_t size) {
  if (shape_.empty()) throw std::invalid_argument("Invalid axis specified.");
  std::vector<std::uint64_t> shape = shape_;
  shape.back() = size;
  number_of_elements_ = arrays::number_of_elements(shape);
  shape_ = std::move(shape);
  const std::size_t axis = shape_.size() - 1;
  if (col_labels_[axis].size() != size) col_labels_[axis].clear();
  if (!equidistant_[axis] && col_positions_[axis].size() != size) {
    col_positions_[axis].clear();
    equidistant_[axis] = true;
  }
  if (equidistant_[axis]) col_positions_[axis].clear();
  if (xy_col_positions_[axis].size() != size) xy_col_positions_[axis].clear();
}
std::uint64_t StackInfoImp::number_of_elements() const { return number_of_elements_; }
const std::string& StackInfoImp::name() const { return name_; }
const std::string& StackInfoImp::description() const { return description_; }

const std::string& StackInfoImp::label(std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  return labels_[axis];
}
const std::vector<std::string>& StackInfoImp::labels() const { return labels_; }

double StackInfoImp::length(std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  return lengths_[axis];
}
const std::vector<double>& StackInfoImp::lengths() const { return lengths_; }

double StackInfoImp::offset(std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  return offsets_[axis];
}
const std::vector<double>& StackInfoImp::offsets() const { return offsets_; }

const units::RuntimeValue& StackInfoImp::units(std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  return units_[axis];
}
const units::RuntimeValue& StackInfoImp::data_units() const { return data_units_; }

bool StackInfoImp::is_equidistant(std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  return equidistant_[axis];
}

double StackInfoImp::col_position(std::uint64_t axis, std::uint64_t index) const {
  throw_if_invalid_axis(axis);
  if (index >= shape_[axis]) throw std::invalid_argument("Invalid pixel position.");
  if (equidistant_[axis]) {
    return (lengths_[axis] / static_cast<double>(shape_[axis])) *
               (static_cast<double>(index) + 0.5) +
           offsets_[axis];
  }
  const std::vector<double>& positions = col_positions_[axis];
  if (index >= positions.size()) throw std::invalid_argument("Invalid pixel position.");
  return positions[index];
}

const std::vector<double>& StackInfoImp::col_positions(std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  std::vector<double>& positions = col_positions_[axis];
  const std::uint64_t size = shape_[axis];
  if (positions.size() == size) return positions;
  positions.clear();
  if (equidistant_[axis]) {
    // Starts half a length below col_position(axis, 0) and adds the step once per pixel;
    // stored files and callers depend on exactly these values.
    const double step = lengths_[axis] / static_cast<double>(size);
    double position = offsets_[axis] - lengths_[axis] * 0.5 + step * 0.5;
    positions.reserve(size);
    for (std::uint64_t i = 0; i < size; ++i) {
      positions.push_back(position);
      position += step;
    }
  }
  return positions;
}

const std::vector<std::pair<double, double>>& StackInfoImp::xy_col_positions(
    std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  std::vector<std::pair<double, double>>& positions = xy_col_positions_[axis];
  if (!positions.empty() && positions.size() != shape_[axis]) positions.clear();
  return positions;
}

const std::vector<std::string>& StackInfoImp::col_labels(std::uint64_t axis) const {
  throw_if_invalid_axis(axis);
  return col_labels_[axis];
}

const StackPosition& StackInfoImp::stack_position() const { return stack_position_; }
Timestamp StackInfoImp::timestamp() const { return timestamp_; }

// The owning thread reads and writes single tags without the map's lock.
const TagValue& StackInfoImp::tag(const std::string& name) const {
  const TagMap& tags = tags_.unguarded();
  const auto found = tags.find(name);
  if (found == tags.end()) throw std::out_of_range("invalid map<K, T> key");
  return found->second.unguarded();
}

TagValue& StackInfoImp::tag(const std::string& name) {
  TagMap& tags = tags_.unguarded();
  const auto found = tags.find(name);
  if (found == tags.end()) throw std::out_of_range("invalid map<K, T> key");
  return found->second.unguarded();
}

std::vector<std::string> StackInfoImp::tags() const {
  const auto tags = tags_.access();
  std::vector<std::string> names;
  names.reserve(tags->size());
  for (const auto& entry : *tags) names.push_back(entry.first);
  return names;
}

SafeTags::accessor StackInfoImp::safe_tags() { return tags_.access(); }

void StackInfoImp::set_name(const std::string& name) {
  throw_if_locked();
  if (assign(name_, name)) on_info_changed(kNameFlag);
}

void StackInfoImp::set_description(const std::string& description) {
  throw_if_locked();
  if (assign(description_, description)) on_info_changed(kDescriptionFlag);
}

void StackInfoImp::set_label(std::uint64_t axis, const std::string& label) {
  throw_if_locked();
  throw_if_invalid_axis(axis);
  if (assign(labels_[axis], label)) on_info_changed(kLabelFlag);
}

void StackInfoImp::set_labels(const std::vector<std::string>& labels) {
  throw_if_locked();
  if (labels.size() != shape_.size()) throw std::invalid_argument("Wrong number of labels.");
  if (assign(labels_, labels)) on_info_changed(kLabelFlag);
}

void StackInfoImp::set_length(std::uint64_t axis, double length) {
  throw_if_locked();
  throw_if_invalid_axis(axis);
  if (!assign(lengths_[axis], length)) return;
  forget_computed_positions(col_positions_, equidistant_);
  on_info_changed(kGeometryFlag);
}

void StackInfoImp::set_lengths(const std::vector<double>& lengths) {
  throw_if_locked();
  if (lengths.size() != shape_.size()) throw std::invalid_argument("Wrong number of axes.");
  if (!assign(lengths_, lengths)) return;
  forget_computed_positions(col_positions_, equidistant_);
  on_info_changed(kGeometryFlag);
}

void StackInfoImp::set_offset(std::uint64_t axis, double offset) {
  throw_if_locked();
  throw_if_invalid_axis(axis);
  if (!assign(offsets_[axis], offset)) return;
  forget_computed_positions(col_positions_, equidistant_);
  on_info_changed(kOffsetFlag);
}

void StackInfoImp::set_offsets(const std::vector<double>& offsets) {
  throw_if_locked();
  if (offsets.size() != shape_.size()) throw std::invalid_argument("Wrong number of axes.");
  if (!assign(offsets_, offsets)) return;
  forget_computed_positions(col_positions_, equidistant_);
  on_info_changed(kGeometryFlag);
}

void StackInfoImp::set_units(std::uint64_t axis, const units::RuntimeValue& unit) {
  throw_if_locked();
  throw_if_invalid_axis(axis);
  if (assign(units_[axis], unit)) on_info_changed(kGeometryFlag);
}

void StackInfoImp::set_data_units(const units::RuntimeValue& unit) {
  throw_if_locked();
  if (assign(data_units_, unit)) on_info_changed(kOffsetFlag);
}

void StackInfoImp::set_col_labels(std::uint64_t axis, const std::vector<std::string>& labels) {
  throw_if_locked();
  throw_if_invalid_axis(axis);
  if (labels.empty()) {
    col_labels_[axis].clear();
    return;
  }
  if (labels.size() != shape_[axis]) throw std::invalid_argument("Wrong number of labels.");
  if (assign(col_labels_[axis], labels)) on_info_changed(kGeometryFlag);
}

void StackInfoImp::set_col_positions(std::uint64_t axis, const std::vector<double>& positions) {
  throw_if_locked();
  throw_if_invalid_axis(axis);
  if (!positions.empty() && positions.size() != shape_[axis]) {
    throw std::invalid_argument("Wrong number of positions.");
  }
  // An equidistant axis keeps its computed positions; they are not stored values.
  const bool equidistant = positions.empty();
  const bool flag_changed = assign(equidistant_[axis], equidistant);
  const bool positions_changed = !equidistant && assign(col_positions_[axis], positions);
  const bool changed = flag_changed || positions_changed;
  if (equidistant) col_positions_[axis].clear();
  if (changed) on_info_changed(positions_flag(axis));
}

void StackInfoImp::set_xy_col_positions(std::uint64_t axis,
                                        const std::vector<std::pair<double, double>>& positions) {
  throw_if_locked();
  throw_if_invalid_axis(axis);
  if (!positions.empty() && positions.size() != shape_[axis]) {
    throw std::invalid_argument("Wrong number of positions.");
  }
  if (assign(xy_col_positions_[axis], positions)) on_info_changed(positions_flag(axis));
}

void StackInfoImp::set_stack_position(const StackPosition& position) {
  throw_if_locked();
  stack_position_ = position;
}

void StackInfoImp::set_timestamp(Timestamp timestamp) {
  throw_if_locked();
  if (assign(timestamp_, timestamp)) on_info_changed(kTimestampFlag);
}

void StackInfoImp::set_timestamp() {
  set_timestamp(
      std::chrono::time_point_cast<Timestamp::duration>(std::chrono::system_clock::now()));
}

void StackInfoImp::set_tag(const std::string& name, TagValue value) {
  const auto tags = tags_.access();
  const auto [entry, inserted] = tags->try_emplace(name, std::move(value));
  if (!inserted) *entry->second.access() = std::move(value);
}

void StackInfoImp::beg_defer_info_update_signals() { ++defer_counter_; }

void StackInfoImp::end_defer_info_update_signals(bool /*signal*/) {
  if (defer_counter_ <= 0) return;
  if (--defer_counter_ > 0 || pending_flags_ == 0) return;
  const unsigned flags = pending_flags_;
  pending_flags_ = 0;
  signal_info_changed(flags);
}

// Source axis and destination axis are paired one to one when both regions have the same
// sizes; otherwise the axes of the two slice shapes are paired in order, and the axes of size
// 1 stay alone (a plane of a 3-D stack placed into a 2-D stack has no third axis for its z).
// Each pair carries label and unit, and a length and offset that keep every copied pixel at
// its physical place (see plan_axis). When the destination takes its whole axis, the column
// labels, the (x, y) positions and, for a non-equidistant source axis, the column positions of
// the pixels taken replace those of the axis; an equidistant source axis makes it equidistant.
// A destination taking only part of its axis keeps those per-pixel vectors and its equidistant
// flag. Name, description, data unit, position and timestamp are copied, and the tags become a
// copy of those of `info`. Everything is checked and read before the first change, so `info`
// may be this info; the changes go through the setters inside one deferral, so listeners see
// one signal.
void StackInfoImp::initialize(const StackInfoInterface& info, const Region& source,
                              const Region& destination) {
  throw_if_locked();
  source.check_fits(info.shape());
  destination.check_fits(shape_);
  if (source.slice_shape() != destination.slice_shape()) {
    throw std::runtime_error(
        "Cannot transform meta-data: Source and destination slice shapes do not match.");
  }

  std::vector<AxisPlan> plans;
  const bool one_to_one = source.size() == destination.size();
  for (std::size_t s = 0, d = 0; s < source.rank(); ++s) {
    if (!one_to_one) {
      if (source.size()[s] == 1) continue;
      while (destination.size()[d] == 1) ++d;
    }
    plans.push_back(plan_axis(info, source, s, shape_, destination, d));
    ++d;
  }
  const std::string name = info.name();
  const std::string description = info.description();
  const units::RuntimeValue data_units = info.data_units();
  const StackPosition position = info.stack_position();
  const Timestamp timestamp = info.timestamp();
  TagMap tags;
  for (const std::string& tag_name : info.tags()) tags.try_emplace(tag_name, info.tag(tag_name));

  beg_defer_info_update_signals();
  try {
    for (const AxisPlan& plan : plans) {
      set_label(plan.axis, plan.label);
      set_units(plan.axis, plan.unit);
      if (plan.has_geometry) {
        set_length(plan.axis, plan.length);
        set_offset(plan.axis, plan.offset);
      }
      if (plan.whole) {
        set_col_labels(plan.axis, plan.col_labels);
        set_col_positions(plan.axis, plan.col_positions);
        set_xy_col_positions(plan.axis, plan.xy_col_positions);
      }
    }
    set_name(name);
    set_description(description);
    set_data_units(data_units);
    set_stack_position(position);
    set_timestamp(timestamp);
    *tags_.access() = std::move(tags);
  } catch (...) {
    end_defer_info_update_signals();
    throw;
  }
  end_defer_info_update_signals();
}

void StackInfoImp::signal_info_changed(unsigned /*flags*/) {}

void StackInfoImp::throw_if_locked() const {
  if (locked_) throw std::runtime_error("Cannot set values: Object locked.");
}

void StackInfoImp::throw_if_invalid_axis(std::uint64_t axis) const {
  if (axis >= shape_.size()) throw std::invalid_argument("Invalid axis specified.");
}

void StackInfoImp::on_info_changed(unsigned flags) {
  if (defer_counter_ != 0) {
    pending_flags_ |= flags;
  } else {
    signal_info_changed(flags);
  }
}

}  // namespace Tarn::arrays
