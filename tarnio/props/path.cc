#include "tarnio/props/path.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tarnio/props/internal/path_parser.h"
#include "tarnio/props/internal/report.h"
#include "tarnio/props/prop_struct.h"

namespace {

namespace dt = Tarn::dt;
using Tarn::props::internal::PathSegment;
using Tarn::props::internal::report;
using Tarn::props::internal::SegmentKind;
using Tarn::props::internal::split_first_segment;

using Resolved = std::pair<TProp*, TPropSize>;

constexpr std::uint64_t kFailed = TProparrayBase::npos;

// Creating one path adds at most this many array elements in all: get_idx limits each growth,
// and this limits a path of many large indices.
constexpr std::uint64_t kMaxNewElements = std::uint64_t{1} << 20;

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// One resolution of a path, segment by segment. The current entry is a TProp (value_), or a
// struct that is no TProp (record_): an element of a struct array, held by the array value
// owner_, or the struct a relative path starts from (no owner). Nothing is copied on the way.
class Walk {
 public:
  Walk(std::string* error, bool create) : error_(error), create_(create) {}

  Resolved from_value(TProp& root, std::string_view path) {
    value_ = &root;
    return run(path);
  }
  Resolved from_struct(TPropstruct& root, std::string_view path) {
    record_ = &root;
    return run(path);
  }

 private:
  Resolved run(std::string_view path) {
    PathSegment segment;
    std::string_view rest = path;
    do {
      if (!split_first_segment(rest, segment, rest, error_)) return {};
      if (segment.kind == SegmentKind::name) {
        if (!member(segment.text)) return {};
        continue;
      }
      if (current_struct() != nullptr) {
        return report(error_, Resolved{},
                      "Encountered array index '{}' instead of struct member name.", segment.text);
      }
      if (!index(segment, rest.empty())) return {};
      if (!position_.empty()) return {value_, std::move(position_)};
    } while (!rest.empty());
    if (value_->type_code() == (dt::struct_ | dt::array_flag)) {
      return report(error_, Resolved{}, "Path ends in struct array.");
    }
    return {value_, TPropSize{}};
  }

  TPropstruct* current_struct() noexcept {
    return record_ != nullptr ? record_ : value_->get_if<TPropstruct>();
  }

  bool member(std::string_view name) {
    TPropstruct* record = record_;
    TProp* owner = owner_;
    if (record == nullptr) {
      TProp& value = *value_;
      record = value.get_if<TPropstruct>();
      if (record == nullptr) {
        if (!create_ || value.content() != nullptr) {
          return report(error_, false, "Expected a struct.");
        }
        if (!may_change(value)) return false;
        TProp made(TPropstruct{});
        value.swap_value(made);
        record = &value.get<TPropstruct>();
      }
      owner = &value;
    }
    const auto found = record->find(name);
    if (found != record->end()) {
      value_ = &found->second;
    } else {
      if (!create_) return report(error_, false, "Struct member '{}' does not exist.", name);
      if (!is_letter(name.front()) && name.front() != '_') {
        return report(error_, false, "Invalid first character in struct member name '{}'.", name);
      }
      if (owner != nullptr && !may_change(*owner)) return false;
      value_ = &record->set(name, TProp());
    }
    record_ = nullptr;
    owner_ = nullptr;
    return true;
  }

  bool index(PathSegment& segment, bool last) {
    TProp& value = *value_;
    const DataType code = value.type_code();
    switch (segment.kind) {
      case SegmentKind::cell_index:
        return cell(value, segment);
      case SegmentKind::array_index:
        return array(value, segment, last);
      default:  // a slash index: as "{...}" on cells, as "(...)" on other arrays
        if ((code & dt::name_mask) == dt::cell) return cell(value, segment);
        if ((code & dt::array_flag) != 0) return array(value, segment, last);
        if (create_ && value.content() == nullptr) {
          return report(error_, false,
                        "Path leads to empty entry but array type to create is unknown in '/' "
                        "notation.");
        }
        return report(error_, false, "Expected an array as '/' is followed by a number.");
    }
  }

  bool cell(TProp& value, PathSegment& segment) {
    if (auto* cells = value.get_if<TProparray<TProp>>()) {
      const std::uint64_t at = locate(value, *cells, segment.indices);
      if (at == kFailed) return false;
      value_ = &(*cells)[at];
      return true;
    }
    if (!create_ || value.content() != nullptr) {
      return report(error_, false, "Not a cell array but encountered cell array index {{...}}.");
    }
    if (!may_change(value)) return false;
    TProparray<TProp> cells(TPropSize(segment.indices.size(), 0));
    const std::uint64_t at = grow(cells, segment.indices);
    if (at == kFailed) return false;
    install(value, std::move(cells));
    value_ = &value.get<TProparray<TProp>>()[at];
    return true;
  }

  bool array(TProp& value, PathSegment& segment, bool last) {
    if (value.content() == nullptr && create_) return make_array(value, segment, last);
    const DataType code = value.type_code();
    const DataType kind = code & dt::name_mask;
    if ((code & dt::array_flag) == 0 || kind == dt::cell) {
      return report(error_, false, "Expected a value or struct array.");
    }
    TProparrayBase* base = value.content()->array();
    auto* records = kind == dt::struct_ ? value.get_if<TProparray<TPropstruct>>() : nullptr;
    if (base == nullptr || (kind == dt::struct_ && records == nullptr)) {
      return report(error_, false, "Type suggests an array but none found.");
    }
    if (records == nullptr && !last) {
      return report(error_, false, "Additional path elements after ending in value array.");
    }
    const std::uint64_t at = locate(value, *base, segment.indices);
    if (at == kFailed) return false;
    if (last) {
      position_ = std::move(segment.indices);
    } else {
      enter(value, (*records)[at]);
    }
    return true;
  }

  // A "none" value reached by "(...)": an array of doubles when the path ends there, else an
  // array of structs.
  bool make_array(TProp& value, PathSegment& segment, bool last) {
    if (!may_change(value)) return false;
    const TPropSize shape(segment.indices.size(), 0);
    if (last) {
      TProparray<double> numbers(shape);
      if (grow(numbers, segment.indices) == kFailed) return false;
      install(value, std::move(numbers));
      position_ = std::move(segment.indices);
      return true;
    }
    TProparray<TPropstruct> records(shape);
    const std::uint64_t at = grow(records, segment.indices);
    if (at == kFailed) return false;
    install(value, std::move(records));
    enter(value, value.get<TProparray<TPropstruct>>()[at]);
    return true;
  }

  void enter(TProp& owner, TPropstruct& record) {
    record_ = &record;
    owner_ = &owner;
  }

  template <typename T>
  static void install(TProp& value, TProparray<T> array) {
    TProp made(std::move(array));
    value.swap_value(made);
  }

  // The linear index of `position` in the array that `value` holds, grown with creation. A
  // single cell is its element at position zero.
  std::uint64_t locate(TProp& value, TProparrayBase& array, const TPropSize& position) {
    if (array.get_rank() == 0 &&
        std::all_of(position.begin(), position.end(), [](std::uint64_t i) { return i == 0; })) {
      return 0;
    }
    if (!create_) return array.get_idx(position, false, error_);
    if (value.is_locked()) {
      const std::uint64_t at = array.get_idx(position, false, Tarn::props::ignore_errors);
      return at != kFailed ? at : report(error_, kFailed, "Property is locked.");
    }
    return grow(array, position);
  }

  std::uint64_t grow(TProparrayBase& array, const TPropSize& position) {
    const std::size_t before = array.element_count();
    const std::uint64_t at = array.get_idx(position, true, error_);
    if (at == kFailed) return kFailed;
    added_ += array.element_count() - before;
    if (added_ > kMaxNewElements) {
      return report(error_, kFailed, "Creating the path exceeds the limit of {} new elements.",
                    kMaxNewElements);
    }
    return at;
  }

  bool may_change(const TProp& value) {
    return !value.is_locked() || report(error_, false, "Property is locked.");
  }

  std::string* error_;
  bool create_;
  TProp* value_ = nullptr;
  TPropstruct* record_ = nullptr;
  TProp* owner_ = nullptr;
  TPropSize position_;
  std::uint64_t added_ = 0;
};

[[noreturn]] void throw_path_error(std::string_view path, std::string_view inner) {
  throw std::runtime_error(fmt::format("Invalid property path '{}': {}", path,
                                       inner.empty() ? std::string_view("Unknown error.") : inner));
}

// The entry of a throwing accessor; `inner` holds the message of a failed walk.
TProp& entry_or_throw(const Resolved& resolved, std::string_view path, const std::string& inner) {
  if (resolved.first == nullptr) throw_path_error(path, inner);
  if (!resolved.second.empty()) throw_path_error(path, "Path ended at value array element.");
  return *resolved.first;
}

TProp* entry_or_report(const Resolved& resolved, std::string* error) {
  if (resolved.first != nullptr && !resolved.second.empty()) {
    return report(error, static_cast<TProp*>(nullptr), "Path ended at value array element.");
  }
  return resolved.first;
}

}  // namespace

std::pair<TProp*, TPropSize> tarn_prop_getp_ex(TProp* root, std::string_view path,
                                               std::string* error, bool create) {
  if (root == nullptr) return report(error, Resolved{}, "No property to resolve the path in.");
  return Walk(error, create).from_value(*root, path);
}

bool tarn_prop_is_valid_name(std::string_view name) noexcept {
  if (name.empty() || (!is_letter(name.front()) && name.front() != '_')) return false;
  return std::all_of(name.begin() + 1, name.end(),
                     [](char c) { return is_letter(c) || is_digit(c) || c == '_' || c == '-'; });
}

bool tarn_prop_is_valid_path(std::string_view path) noexcept {
  try {
    TProp scratch;
    return Walk(Tarn::props::ignore_errors, true).from_value(scratch, path).first != nullptr;
  } catch (...) {
    return false;
  }
}

TProp& TProp::getp(std::string_view path, bool create) {
  std::string inner;
  return entry_or_throw(Walk(&inner, create).from_value(*this, path), path, inner);
}

const TProp& TProp::getp(std::string_view path) const {
  std::string inner;
  return entry_or_throw(Walk(&inner, false).from_value(const_cast<TProp&>(*this), path), path,
                        inner);
}

TProp* TProp::getp(std::string_view path, std::string* error, bool create) {
  return entry_or_report(Walk(error, create).from_value(*this, path), error);
}

const TProp* TProp::getp(std::string_view path, std::string* error) const {
  return entry_or_report(Walk(error, false).from_value(const_cast<TProp&>(*this), path), error);
}

TProp& TPropstruct::getp(std::string_view path, bool create) {
  std::string inner;
  return entry_or_throw(Walk(&inner, create).from_struct(*this, path), path, inner);
}

const TProp& TPropstruct::getp(std::string_view path) const {
  std::string inner;
  return entry_or_throw(Walk(&inner, false).from_struct(const_cast<TPropstruct&>(*this), path),
                        path, inner);
}

TProp* TPropstruct::getp(std::string_view path, std::string* error, bool create) {
  return entry_or_report(Walk(error, create).from_struct(*this, path), error);
}

const TProp* TPropstruct::getp(std::string_view path, std::string* error) const {
  return entry_or_report(Walk(error, false).from_struct(const_cast<TPropstruct&>(*this), path),
                         error);
}
