// tarn units: reads a value with a unit and prints it, converted with --to.

#include <fmt/format.h>

#include <memory>
#include <string>

#include "tarnio/units/runtime_value.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

struct UnitsOptions {
  std::string value;
  std::string to;
};

void print_value(const UnitsOptions& options) {
  Tarn::units::RuntimeValue value = Tarn::units::RuntimeValue::parse(options.value);
  if (!options.to.empty()) value = value.in(options.to);
  fmt::print("{}\n", value.to_string());
}

}  // namespace

void add_units_command(CLI::App& app) {
  auto options = std::make_shared<UnitsOptions>();
  CLI::App* command = app.add_subcommand(
      "units", "Read a value with a physical unit (\"1.5 um\", \"20 °C\", \"3/s\") and print it.");
  command->add_option("EXPR", options->value, "The value and its unit")->required();
  command->add_option("--to", options->to, "Convert into this unit (\"nm\", \"K\", \"Hz\")");
  command->callback([options] { print_value(*options); });
}

}  // namespace tarn
