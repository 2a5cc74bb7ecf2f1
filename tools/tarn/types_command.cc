// tarn types: the element types as an aligned table of code, name, size and value type.

#include <fmt/format.h>

#include "tarnio/arrays/data_type.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

void print_types() {
  constexpr auto kRow = "{:<12}{:<12}{:<14}{:>4}  {}\n";
  fmt::print(kRow, "code", "decimal", "name", "size", "value type");
  for (const DataType dt : Tarn::arrays::all_data_types()) {
    fmt::print(kRow, fmt::format("0x{:08X}", static_cast<std::uint32_t>(dt)), dt,
               tarn_dt_get_name(dt), tarn_dt_get_size(dt), Tarn::arrays::data_type_description(dt));
  }
}

}  // namespace

void add_types_command(CLI::App& app) {
  app.add_subcommand("types", "Print the element types: code, name, size in bytes, value type.")
      ->callback(print_types);
}

}  // namespace tarn
