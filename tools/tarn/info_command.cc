// tarn info: the file header, the metadata keys and one row per stack, as an aligned table or
// as one JSON object for scripts.

#include <fmt/format.h>

#include <boost/locale/utf.hpp>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/json/read_write.h"
#include "tarnio/json/value.h"
#include "tarnio/units/runtime_value.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

namespace utf = boost::locale::utf;

struct InfoOptions {
  std::string file;
  bool json = false;
};

// `text` as valid UTF-8: each byte that is not part of a valid sequence becomes "\xNN" in
// `table` form and U+FFFD otherwise; in table form control characters are escaped too, so that
// a row stays one line.
std::string clean_text(std::string_view text, bool table) {
  std::string out;
  out.reserve(text.size());
  auto p = text.begin();
  while (p != text.end()) {
    const auto start = p;
    const utf::code_point c = utf::utf_traits<char>::decode(p, text.end());
    if (c == utf::illegal || c == utf::incomplete) {
      p = start + 1;
      out += table ? fmt::format("\\x{:02X}", static_cast<unsigned char>(*start)) : "\uFFFD";
    } else if (table && c == '\n') {
      out += "\\n";
    } else if (table && (c < 0x20 || c == 0x7F)) {
      out += fmt::format("\\x{:02X}", c);
    } else {
      out.append(start, p);
    }
  }
  return out;
}

// Characters of valid UTF-8 text, for aligning columns.
std::size_t text_width(std::string_view text) {
  std::size_t width = 0;
  for (const char c : text) width += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
  return width;
}

std::string shape_text(const std::vector<std::uint64_t>& shape) {
  return shape.empty() ? std::string("-") : fmt::format("{}", fmt::join(shape, "x"));
}

// Whether axis `axis` has a unit other than the default, the dimensionless 1.
bool has_units(const Tarn::bf::StackImp& stack, std::size_t axis) {
  return !(stack.units(axis).to_string() == Tarn::units::RuntimeValue().to_string());
}

// Per axis its label (or "-") and its unit in brackets when set, "x [0.1 µm], y [0.1 µm], t";
// "-" when no axis has either.
std::string axes_text(const Tarn::bf::StackImp& stack) {
  std::vector<std::string> axes;
  bool any = false;
  for (std::size_t i = 0; i < stack.shape().size(); ++i) {
    const std::string& label = stack.label(i);
    std::string text = label.empty() ? "-" : clean_text(label, true);
    if (has_units(stack, i)) text += " [" + stack.units(i).to_string() + "]";
    any = any || !label.empty() || has_units(stack, i);
    axes.push_back(std::move(text));
  }
  return any ? fmt::format("{}", fmt::join(axes, ", ")) : "-";
}

// The stored bytes per plain byte of a stack's data; 0 without data.
double stored_ratio(const Tarn::bf::StackImp& stack) {
  const double plain = static_cast<double>(stack.samples_available()) *
                       static_cast<double>(tarn_dt_get_size(stack.type()));
  return plain > 0 ? static_cast<double>(stack.data_length()) / plain : 0.0;
}

// "none" or "zlib:LEVEL" with the share of the plain size that the data takes on disk.
std::string compression_text(const Tarn::bf::StackImp& stack) {
  if (stack.compression() == Tarn::bf::StackImp::Compression::none) return "none";
  return fmt::format("zlib:{} ({:.1f} %)", stack.compression_level(), 100.0 * stored_ratio(stack));
}

std::string chunk_text(const Tarn::bf::StackImp& stack) {
  return stack.is_chunk_wise() ? fmt::format("{} samples", stack.chunk_samples()) : "-";
}

std::string size_text(std::uint64_t bytes) {
  if (bytes < 1024) return fmt::format("{} B", bytes);
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
    value /= 1024.0;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

// Rows of cells as lines whose columns start at the same character; the last column is not
// padded.
std::string aligned(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    if (widths.size() < row.size()) widths.resize(row.size());
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], text_width(row[i]));
    }
  }
  std::string out;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      out += row[i];
      if (i + 1 < row.size()) out.append(widths[i] - text_width(row[i]) + 2, ' ');
    }
    out.erase(out.find_last_not_of(' ') + 1);
    out += '\n';
  }
  return out;
}

std::string info_table(Tarn::bf::FileInterface& file) {
  std::vector<std::string> keys;
  for (const auto& entry : file.metadata()) keys.push_back(clean_text(entry.first, true));
  std::string out = aligned({
      {"description", clean_text(file.description(), true)},
      {"format version", std::to_string(file.format_version())},
      {"metadata keys", keys.empty() ? "-" : fmt::format("{}", fmt::join(keys, ", "))},
      {"stacks", std::to_string(file.number_of_stacks())},
  });
  if (file.number_of_stacks() == 0) return out;
  std::vector<std::vector<std::string>> rows{
      {"index", "name", "type", "shape", "axes", "compression", "chunks", "data size"}};
  for (std::size_t i = 0; i < file.number_of_stacks(); ++i) {
    const auto stack = file.stack(i);
    rows.push_back({std::to_string(i), clean_text(stack->name(), true),
                    tarn_dt_get_name(stack->type()), shape_text(stack->shape()), axes_text(*stack),
                    compression_text(*stack), chunk_text(*stack), size_text(stack->data_length())});
  }
  return out + "\n" + aligned(rows) + archive_lines(file) + ome_lines(file);
}

template <class T>
JSON::Value json_list(const std::vector<T>& values) {
  JSON::Value list = JSON::Value::list();
  for (const T& value : values) list.push_back(value);
  return list;
}

JSON::Value stack_json(const Tarn::bf::StackImp& stack, std::size_t index) {
  const bool zlib = stack.compression() == Tarn::bf::StackImp::Compression::zlib;
  // Per axis the label ("" when none) and the unit (null when none).
  JSON::Value labels = JSON::Value::list();
  JSON::Value units = JSON::Value::list();
  for (std::size_t i = 0; i < stack.shape().size(); ++i) {
    labels.push_back(clean_text(stack.label(i), false));
    units.push_back(has_units(stack, i) ? JSON::Value(stack.units(i).to_string()) : JSON::Value());
  }
  return JSON::Value::object({
      {"index", index},
      {"position", stack.position()},
      {"name", clean_text(stack.name(), false)},
      {"description", clean_text(stack.description(), false)},
      {"type", tarn_dt_get_name(stack.type())},
      {"type_code", static_cast<std::uint32_t>(stack.type())},
      {"shape", json_list(stack.shape())},
      {"lengths", json_list(stack.lengths())},
      {"offsets", json_list(stack.offsets())},
      {"labels", std::move(labels)},
      {"units", std::move(units)},
      {"compression", zlib ? "zlib" : "none"},
      {"compression_level", stack.compression_level()},
      {"stored_ratio", stored_ratio(stack)},
      {"chunk_samples", stack.chunk_samples()},
      {"data_length", stack.data_length()},
      {"next", stack.next_position()},
  });
}

std::string info_json(Tarn::bf::FileInterface& file) {
  JSON::Value keys = JSON::Value::list();
  for (const auto& entry : file.metadata()) keys.push_back(clean_text(entry.first, false));
  JSON::Value stacks = JSON::Value::list();
  for (std::size_t i = 0; i < file.number_of_stacks(); ++i) {
    stacks.push_back(stack_json(*file.stack(i), i));
  }
  add_archive_json(file, stacks);
  JSON::Value info = JSON::Value::object({
      {"format_version", file.format_version()},
      {"description", clean_text(file.description(), false)},
      {"metadata_keys", std::move(keys)},
      {"stacks", std::move(stacks)},
  });
  add_ome_json(file, info);
  return JSON::write(info, 2) + "\n";
}

}  // namespace

void print_info(const std::filesystem::path& path, bool json) {
  const auto file = Tarn::open_file(path, Tarn::bf::DiskFile::Mode::read);
  const std::string text = json ? info_json(*file) : info_table(*file);
  write_stdout(text.data(), text.size());
}

void add_info_command(CLI::App& app) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App* command = app.add_subcommand(
      "info",
      "Print a TBF file's description, format version, metadata keys and one row per stack.");
  command->add_option("FILE", options->file, "The TBF file")->required();
  command->add_flag("--json", options->json,
                    "Print one JSON object with the header values of the file and its stacks.");
  command->callback([options] { print_info(options->file, options->json); });
}

}  // namespace tarn
