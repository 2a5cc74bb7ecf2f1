// tarn: the command-line face of the library. Usage errors exit 2 with CLI11's explanation;
// failures print one line "tarn: MESSAGE" on stderr and exit 1.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "tarnio/errors/tarn_error.h"
#include "tarnio/version.h"
#include "tools/tarn/commands.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

int fail(const std::string& message) {
  std::fprintf(stderr, "tarn: %s\n", message.c_str());
  return kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tarn: read, write and inspect TBF stack files, their metadata and property documents."};
  app.name("tarn");
  app.set_version_flag("--version", std::string("tarn ") + TARNIO_VERSION_STRING);
  app.require_subcommand(1);
  tarn::add_types_command(app);
  tarn::add_props_command(app);
  tarn::add_units_command(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return kExitUsage;
  } catch (const TarnError& error) {
    return fail(error.message());
  } catch (const std::exception& error) {
    return fail(error.what());
  }
  return 0;
}
