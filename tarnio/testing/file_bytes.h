#pragma once

// Whole files as bytes, for tests that write a file, damage a copy and compare the results:
// read_file_bytes<Bytes>(path) and write_file_bytes(path, bytes), where Bytes is std::string or
// std::vector<std::byte>. For tests only.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace Tarn::testing {

template <class Bytes = std::string>
Bytes read_file_bytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string chars{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if constexpr (std::is_same_v<Bytes, std::string>) {
    return chars;
  } else {
    const auto* first = reinterpret_cast<const typename Bytes::value_type*>(chars.data());
    return Bytes(first, first + chars.size());
  }
}

inline void write_file_bytes(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

inline void write_file_bytes(const std::filesystem::path& path, std::span<const std::byte> bytes) {
  write_file_bytes(path,
                   std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace Tarn::testing
