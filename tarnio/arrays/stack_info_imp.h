#pragma once

// Tarn::arrays::StackInfoImp: the implementation of StackInfoInterface, the base of the
// in-memory stack and of the file stack. Those override signal_info_changed() to reach their
// callbacks; the info itself signals nothing.
//
// A new info of (type, sizes) has, per axis, length = size, offset = -0.5, the equidistant flag
// set, no column positions or labels, an empty label and the default unit; empty name and
// description, the default position, timestamp zero and no tags. Its number of elements is
// computed once, at construction.
//
// Lock: lock() makes every setter but set_tag fail; the owner of the info decides when (a file
// stack locks its info once the header is on disk). Queries keep working.
//
// Not thread-safe apart from the tags (see stack_info_interface.h). tags(), set_tag() and
// initialize() take the tag map's lock, so calling them while holding a safe_tags() accessor
// in the same thread deadlocks. Copies are deep, tags and the lock included; a copy starts
// without an open deferral.

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/arrays/region.h"
#include "tarnio/arrays/stack_info_interface.h"
#include "tarnio/export.h"

namespace Tarn::arrays {

class TARNIO_EXPORT StackInfoImp : public virtual StackInfoInterface {
 public:
  // Throws std::runtime_error "The product exceeds the maximum size." when the sizes' product
  // overflows 64 bits.
  StackInfoImp(DataType type, std::span<const std::uint64_t> sizes);
  StackInfoImp(DataType type, std::initializer_list<std::uint64_t> sizes)
      : StackInfoImp(type, std::span<const std::uint64_t>(sizes.begin(), sizes.size())) {}
  // Everything of `info` with another element type.
  StackInfoImp(const StackInfoInterface& info, DataType type);
  // The info of `region` of a stack described by `info`: its sizes are the region's, and each
  // axis keeps the physical place of the pixels it took (see initialize). Throws
  // std::invalid_argument "Region does not fit the stack." when the region leaves `info`.
  StackInfoImp(const StackInfoInterface& info, const Region& region);
  // The info of a stack of the sizes of `destination` into which `source` of `info` is copied
  // (see initialize). Throws as initialize does.
  StackInfoImp(const StackInfoInterface& info, const Region& source, const Region& destination);
  StackInfoImp(const StackInfoImp& other);
  StackInfoImp(StackInfoImp&& other) noexcept;
  StackInfoImp& operator=(const StackInfoImp&) = delete;
  StackInfoImp& operator=(StackInfoImp&&) = delete;
  ~StackInfoImp() override;

  int type() const override;
  const std::vector<std::uint64_t>& shape() const override;
  std::uint64_t number_of_elements() const override;
  const std::string& name() const override;
  const std::string& description() const override;
  const std::string& label(std::uint64_t axis) const override;
  const std::vector<std::string>& labels() const override;
  double length(std::uint64_t axis) const override;
  const std::vector<double>& lengths() const override;
  double offset(std::uint64_t axis) const override;
  const std::vector<double>& offsets() const override;
  const units::RuntimeValue& units(std::uint64_t axis) const override;
  const units::RuntimeValue& data_units() const override;
  bool is_equidistant(std::uint64_t axis) const override;
  double col_position(std::uint64_t axis, std::uint64_t index) const override;
  const std::vector<double>& col_positions(std::uint64_t axis) const override;
  const std::vector<std::pair<double, double>>& xy_col_positions(std::uint64_t axis) const override;
  const std::vector<std::string>& col_labels(std::uint64_t axis) const override;
  const StackPosition& stack_position() const override;
  Timestamp timestamp() const override;
  const TagValue& tag(const std::string& name) const override;
  TagValue& tag(const std::string& name) override;
  std::vector<std::string> tags() const override;
  SafeTags::accessor safe_tags() override;

  void set_name(const std::string& name) override;
  void set_description(const std::string& description) override;
  void set_label(std::uint64_t axis, const std::string& label) override;
  void set_labels(const std::vector<std::string>& labels) override;
  void set_length(std::uint64_t axis, double length) override;
  void set_lengths(const std::vector<double>& lengths) override;
  void set_offset(std::uint64_t axis, double offset) override;
  void set_offsets(const std::vector<double>& offsets) override;
  void set_units(std::uint64_t axis, const units::RuntimeValue& unit) override;
  void set_data_units(const units::RuntimeValue& unit) override;
  void set_col_labels(std::uint64_t axis, const std::vector<std::string>& labels) override;
  void set_col_positions(std::uint64_t axis, const std::vector<double>& positions) override;
  void set_xy_col_positions(std::uint64_t axis,
                            const std::vector<std::pair<double, double>>& positions) override;
  void set_stack_position(const StackPosition& position) override;
  void set_timestamp(Timestamp timestamp) override;
  void set_timestamp() override;
  void set_tag(const std::string& name, TagValue value) override;

  void beg_defer_info_update_signals() override;
  void end_defer_info_update_signals(bool signal = true) override;

  bool is_locked() const { return locked_; }
  void lock() { locked_ = true; }

  // Copies the description of `source` of `info` onto the axes of `destination` of this info.
  // Axes pair one to one when both regions have the same sizes (a plane keeps its z position);
  // otherwise the axes of the two slice shapes pair in order. Per pair: label and unit; length and
  // offset such that every copied pixel keeps its physical place; and, when the destination
  // takes its whole axis, the column labels and positions of the pixels taken; then name,
  // description, data unit, position, timestamp and tags. Raises the flags of what changed. Throws
  // std::runtime_error "Cannot transform meta-data: Source and destination slice shapes do not
  // match." when the slice shapes differ, std::invalid_argument "Region does not fit the stack."
  // when a region leaves its info, and fails as the setters do on a locked info.
  void initialize(const StackInfoInterface& info, const Region& source, const Region& destination);

 protected:
  // Does nothing here; the stack classes override it.
  void signal_info_changed(unsigned flags) override;

  void unlock() { locked_ = false; }
  // For a stack whose element type becomes known after construction (a file stack).
  void set_data_type(DataType type) { type_ = type; }
  // For a stack whose last axis grows while it is written: the axis becomes `size` long, and
  // what was given per pixel of it (column labels and positions) is dropped when it no longer
  // fits. Throws std::runtime_error "The product exceeds the maximum size." (the shape stays)
  // and std::invalid_argument "Invalid axis specified." for a stack of rank 0. Signals nothing.
  void resize_last_axis(std::uint64_t size);
  // Throws std::runtime_error "Cannot set values: Object locked." when locked.
  void throw_if_locked() const;
  // Throws std::invalid_argument "Invalid axis specified." when axis >= rank.
  void throw_if_invalid_axis(std::uint64_t axis) const;
  // Signals `flags` at once, or merges them into the pending set while a deferral is open.
  void on_info_changed(unsigned flags);

 private:
  DataType type_;
  std::vector<std::uint64_t> shape_;
  std::uint64_t number_of_elements_;
  std::vector<double> lengths_;
  std::vector<double> offsets_;
  std::vector<bool> equidistant_;
  // Filled on demand by the const col_positions() and emptied by the const
  // xy_col_positions(), hence mutable.
  mutable std::vector<std::vector<double>> col_positions_;
  mutable std::vector<std::vector<std::pair<double, double>>> xy_col_positions_;
  std::vector<std::vector<std::string>> col_labels_;
  std::vector<std::string> labels_;
  std::vector<units::RuntimeValue> units_;
  units::RuntimeValue data_units_;
  std::string name_;
  std::string description_;
  StackPosition stack_position_;
  Timestamp timestamp_{};
  SafeTags tags_;
  bool locked_ = false;
  std::int32_t defer_counter_ = 0;
  std::uint32_t pending_flags_ = 0;
};

}  // namespace Tarn::arrays
