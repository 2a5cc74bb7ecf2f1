#pragma once

// Little-endian numbers at byte offsets of an encoded header: put_* stores into, get_* loads
// from a byte span. The file formats are little-endian and the container refuses big-endian
// machines, so each is a plain copy. The caller keeps offset + width within the span.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace Tarn::bf::internal {

template <class T>
void put_le(std::span<std::byte> out, std::size_t offset, T value) {
  std::memcpy(out.data() + offset, &value, sizeof(T));
}

template <class T>
T get_le(std::span<const std::byte> in, std::size_t offset) {
  T value;
  std::memcpy(&value, in.data() + offset, sizeof(T));
  return value;
}

inline void put_u32(std::span<std::byte> out, std::size_t offset, std::uint32_t v) {
  put_le(out, offset, v);
}
inline void put_u64(std::span<std::byte> out, std::size_t offset, std::uint64_t v) {
  put_le(out, offset, v);
}
inline void put_f64(std::span<std::byte> out, std::size_t offset, double v) {
  put_le(out, offset, v);
}
inline void put_bytes(std::span<std::byte> out, std::size_t offset, std::string_view bytes) {
  std::memcpy(out.data() + offset, bytes.data(), bytes.size());
}

inline std::uint32_t get_u32(std::span<const std::byte> in, std::size_t offset) {
  return get_le<std::uint32_t>(in, offset);
}
inline std::uint64_t get_u64(std::span<const std::byte> in, std::size_t offset) {
  return get_le<std::uint64_t>(in, offset);
}
inline double get_f64(std::span<const std::byte> in, std::size_t offset) {
  return get_le<double>(in, offset);
}
inline bool has_bytes(std::span<const std::byte> in, std::size_t offset, std::string_view bytes) {
  return in.size() >= offset + bytes.size() &&
         std::memcmp(in.data() + offset, bytes.data(), bytes.size()) == 0;
}

}  // namespace Tarn::bf::internal
