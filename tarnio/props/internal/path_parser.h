#pragma once

// The syntax of property paths: splitting off the first segment of a path and reading the index
// list of an index segment. Segments end at the first of '.', '{', '(' and '/'; a '.' or a '/'
// that is not followed by a digit separates members and is dropped, while '{', '(' and a '/'
// followed by a digit start the next segment. Failures go to the error sink (error_sink.h).
// Stateless and thread-safe; segments view the path they come from.

#include <string>
#include <string_view>

#include "tarnio/props/prop_array.h"

namespace Tarn::props::internal {

enum class SegmentKind {
  name,         // a struct member: "name"
  cell_index,   // "{i,j,...}"
  array_index,  // "(i,j,...)"
  slash_index,  // "/i"
};

struct PathSegment {
  SegmentKind kind = SegmentKind::name;
  // The segment as written: the member name, or the index with its brackets or its '/'.
  std::string_view text;
  // The zero-based indices of an index segment; empty for a name.
  TPropSize indices;
};

// Splits the first segment off `path` into `segment` (its index vector is reused) and sets
// `rest` to what follows, without a leading member separator. Index segments are parsed, names
// checked with tarn_prop_is_valid_name. Returns false after reporting a failure.
bool split_first_segment(std::string_view path, PathSegment& segment, std::string_view& rest,
                         std::string* error);

// Reads the indices of "(...)", "{...}" or "/..." into `indices`: numbers separated by ',',
// each optionally preceded by spaces. Returns false after reporting a failure.
bool parse_index_segment(std::string_view segment, TPropSize& indices, std::string* error);

}  // namespace Tarn::props::internal
