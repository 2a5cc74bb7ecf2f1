#pragma once

// The commands of the tarn tool. Each add_*_command registers a subcommand on the application
// with its options and the callback that runs it; a callback reports failures by throwing.

#include <CLI/CLI.hpp>

namespace tarn {

void add_types_command(CLI::App& app);
void add_props_command(CLI::App& app);
void add_units_command(CLI::App& app);

}  // namespace tarn
