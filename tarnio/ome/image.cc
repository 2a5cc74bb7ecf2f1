#include "tarnio/ome/image.h"

#include <array>
#include <cstdint>
#include <string_view>

#include "tarnio/ome/element_classes.h"
#include "tarnio/ome/errors.h"

namespace OME {
namespace {

// A size attribute; 1 when absent, so that a missing dimension does not multiply the planes.
std::uint64_t size_of(const JSON::Proxy& pixels, std::string_view key) {
  const JSON::Value* size = pixels.find_member(key);
  return size == nullptr ? 1 : size->get_uint64();
}

// The Z, C and T of plane `index` in a dimension order such as "XYZCT", whose third letter
// varies fastest.
std::array<std::uint64_t, 3> plane_position(std::string_view order, std::uint64_t index,
                                            const std::array<std::uint64_t, 3>& sizes) {
  std::array<std::uint64_t, 3> zct{};
  for (std::size_t letter = 2; letter < order.size() && letter < 5; ++letter) {
    const std::size_t axis = order[letter] == 'Z' ? 0 : order[letter] == 'C' ? 1 : 2;
    zct[axis] = index % sizes[axis];
    index /= sizes[axis];
  }
  return zct;
}

}  // namespace

bool Pixels::update_counts() {
  bool changed = false;
  const std::uint64_t size_c = size_of(*this, "SizeC");
  for (Channel& channel : channels()) channel.ID();  // registers the IDs present
  if (channels().size() != size_c) {
    while (channels().size() > size_c) channels().erase(channels().size() - 1);
    while (channels().size() < size_c) {
      const auto largest = ids().largest(Channel::kIDPrefix);
      channels().append().ID().set_actual(largest ? *largest + 1 : 0);
    }
    changed = true;
  }
  if (planes().empty()) return changed;
  const std::array<std::uint64_t, 3> sizes{size_of(*this, "SizeZ"), size_c,
                                           size_of(*this, "SizeT")};
  const std::uint64_t count = sizes[0] * sizes[1] * sizes[2];
  if (planes().size() == count) return changed;
  const JSON::Value* order = find_member("DimensionOrder");
  const std::string_view dimension_order =
      order != nullptr && order->is_string() ? order->get_string() : "XYZCT";
  while (planes().size() > count) planes().erase(planes().size() - 1);
  while (planes().size() < count) {
    const auto zct = plane_position(dimension_order, planes().size(), sizes);
    planes().append(JSON::Value::object({{"TheZ", zct[0]}, {"TheC", zct[1]}, {"TheT", zct[2]}}));
  }
  return true;
}

bool Image::update_1() {
  Pixels* pixels = this->pixels().get();
  if (pixels == nullptr) return false;
  bool changed = pixels->update_counts();
  for (Channel& channel : pixels->channels()) changed = channel.update_1() || changed;
  return changed;
}

}  // namespace OME
