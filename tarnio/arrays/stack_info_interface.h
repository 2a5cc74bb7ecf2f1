#pragma once

// Tarn::arrays::StackInfoInterface: everything about an n-dimensional stack except its data:
// element type, shape, the physical geometry of each axis (length, offset, unit, label,
// per-pixel column labels and positions), the unit of the values, name, description, position
// in the acquisition, timestamp and free-form tags. StackInfoImp is its implementation; the
// in-memory and the file stacks build on it.
//
// Geometry: an equidistant axis of size n, length L and offset o puts the centre of pixel i at
// (L / n) * (i + 0.5) + o. The defaults (L = n, o = -0.5) put it at i.
//
// Change notification: every setter that changes a stored value reports what changed as flags
// to signal_info_changed(), at once or merged while a deferral is open:
//   1                  set_length, set_lengths, set_offsets, set_units, set_col_labels
//   axis * 65536 + 1   set_col_positions, set_xy_col_positions
//   2                  set_label, set_labels
//   4                  set_offset, set_data_units
//   16 / 32 / 64       set_name / set_description / set_timestamp
// Setting one offset raises 4 while setting all offsets raises 1; existing callers rely on the
// difference. set_stack_position and set_tag raise nothing.
//
// Errors: std::runtime_error "Cannot set values: Object locked." for a setter on a locked info
// (checked before the axis), std::invalid_argument "Invalid axis specified." for an axis
// >= rank, "Invalid pixel position.", "Wrong number of labels." and "Wrong number of
// positions."; std::out_of_range "invalid map<K, T> key" for an unknown tag. A failed setter
// leaves the info unchanged.
//
// Threading: the tags are guarded (safe_tags() hands out the map under its lock); every other
// field belongs to one thread at a time. tag() returns a reference into the map without taking
// the lock, for that owning thread.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "tarnio/archive/exclusive_access.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/stack_position.h"
#include "tarnio/export.h"
#include "tarnio/json/value.h"
#include "tarnio/props/prop.h"
#include "tarnio/units/runtime_value.h"

namespace Tarn::arrays {

// A tag holds a property value or a JSON value; the tag "kalix" holds the description of the
// localization data of an archive as JSON.
using TagValue = std::variant<TProp, JSON::Value>;
using TagMap = std::map<std::string, Kalix::exclusive_access<TagValue>>;
using SafeTags = Kalix::exclusive_access<TagMap>;

class TARNIO_EXPORT StackInfoInterface {
 protected:
  // Called with the changed aspects (see above); the stack classes forward them to their
  // registered callbacks.
  virtual void signal_info_changed(unsigned flags) = 0;

 public:
  virtual ~StackInfoInterface() = default;

  virtual int type() const = 0;
  virtual const std::vector<std::uint64_t>& shape() const = 0;
  virtual std::uint64_t number_of_elements() const = 0;
  virtual const std::string& name() const = 0;
  virtual const std::string& description() const = 0;
  virtual const std::string& label(std::uint64_t axis) const = 0;
  virtual const std::vector<std::string>& labels() const = 0;
  virtual double length(std::uint64_t axis) const = 0;
  virtual const std::vector<double>& lengths() const = 0;
  virtual double offset(std::uint64_t axis) const = 0;
  virtual const std::vector<double>& offsets() const = 0;
  virtual const units::RuntimeValue& units(std::uint64_t axis) const = 0;
  virtual const units::RuntimeValue& data_units() const = 0;
  virtual bool is_equidistant(std::uint64_t axis) const = 0;
  // Pixel centre i of `axis`: (length / size) * (i + 0.5) + offset on an equidistant axis,
  // else the stored position i.
  virtual double col_position(std::uint64_t axis, std::uint64_t index) const = 0;
  // Every column position of `axis`. An equidistant axis without stored positions gets them
  // computed and kept (and computed afresh after its length or offset changes): starting at offset
  // - length / 2 + step / 2 and adding the step (length / size) once per pixel. This start lies
  // half a length below col_position(axis, 0); both formulas are kept as they are because stored
  // files and callers depend on each. A non-equidistant axis whose stored positions have the wrong
  // count returns them emptied.
  virtual const std::vector<double>& col_positions(std::uint64_t axis) const = 0;
  // Stored (x, y) pairs per pixel; a stored vector of a count other than 0 or the axis size is
  // emptied first.
  virtual const std::vector<std::pair<double, double>>& xy_col_positions(
      std::uint64_t axis) const = 0;
  virtual const std::vector<std::string>& col_labels(std::uint64_t axis) const = 0;
  virtual const StackPosition& stack_position() const = 0;
  virtual Timestamp timestamp() const = 0;
  virtual const TagValue& tag(const std::string& name) const = 0;
  virtual TagValue& tag(const std::string& name) = 0;
  // The tag names in ascending byte order.
  virtual std::vector<std::string> tags() const = 0;
  virtual SafeTags::accessor safe_tags() = 0;

  virtual void set_name(const std::string& name) = 0;
  virtual void set_description(const std::string& description) = 0;
  virtual void set_label(std::uint64_t axis, const std::string& label) = 0;
  // Throws std::invalid_argument "Wrong number of labels." unless there is one per axis.
  virtual void set_labels(const std::vector<std::string>& labels) = 0;
  virtual void set_length(std::uint64_t axis, double length) = 0;
  // Throws std::invalid_argument "Wrong number of axes." unless there is one per axis.
  virtual void set_lengths(const std::vector<double>& lengths) = 0;
  virtual void set_offset(std::uint64_t axis, double offset) = 0;
  // Throws std::invalid_argument "Wrong number of axes." unless there is one per axis.
  virtual void set_offsets(const std::vector<double>& offsets) = 0;
  virtual void set_units(std::uint64_t axis, const units::RuntimeValue& unit) = 0;
  virtual void set_data_units(const units::RuntimeValue& unit) = 0;
  // One label per pixel of `axis`, or none (clearing them, without a flag).
  virtual void set_col_labels(std::uint64_t axis, const std::vector<std::string>& labels) = 0;
  // One position per pixel of `axis`, making it non-equidistant, or none, making it
  // equidistant again.
  virtual void set_col_positions(std::uint64_t axis, const std::vector<double>& positions) = 0;
  // One (x, y) pair per pixel of `axis`, or none; the equidistant flag is left alone.
  virtual void set_xy_col_positions(std::uint64_t axis,
                                    const std::vector<std::pair<double, double>>& positions) = 0;
  virtual void set_stack_position(const StackPosition& position) = 0;
  virtual void set_timestamp(Timestamp timestamp) = 0;
  // The current system time.
  virtual void set_timestamp() = 0;
  // Adds or replaces a tag; works on a locked info too.
  virtual void set_tag(const std::string& name, TagValue value) = 0;

  // Opens a deferral: until the matching end, changes are merged instead of signalled.
  // Deferrals nest.
  virtual void beg_defer_info_update_signals() = 0;
  // Closes a deferral; closing the outermost one signals the merged changes once. The argument
  // is ignored: leaving a deferral always signals what is pending. Extra calls do nothing.
  virtual void end_defer_info_update_signals(bool signal = true) = 0;

  DataType get_dt() const { return type(); }
  std::size_t get_rank() const { return shape().size(); }
  // The size of `axis`; throws std::invalid_argument "Invalid axis specified." past the rank.
  std::uint64_t get_size(std::uint64_t axis) const;
  const std::vector<std::uint64_t>& get_sizes() const { return shape(); }
  std::uint64_t get_dimension_size(std::uint64_t axis) const { return get_size(axis); }
  std::uint64_t get_number_of_elements() const { return number_of_elements(); }
  const std::string& get_label(std::uint64_t axis) const { return label(axis); }
  const std::vector<std::string>& get_labels() const { return labels(); }
  double get_length(std::uint64_t axis) const { return length(axis); }
  const std::vector<double>& get_lengths() const { return lengths(); }
  double get_offset(std::uint64_t axis) const { return offset(axis); }
  const std::vector<double>& get_offsets() const { return offsets(); }
  const units::RuntimeValue& get_units(std::uint64_t axis) const { return units(axis); }
  const units::RuntimeValue& get_data_units() const { return data_units(); }
  double get_col_position(std::uint64_t axis, std::uint64_t index) const {
    return col_position(axis, index);
  }
  const std::vector<double>& get_col_positions(std::uint64_t axis) const {
    return col_positions(axis);
  }
  const StackPosition& get_stack_position() const { return stack_position(); }
};

}  // namespace Tarn::arrays
