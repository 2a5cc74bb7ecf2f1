// tarn: the command-line face of the library. Usage errors exit 2 with CLI11's explanation;
// failures print one line "tarn: MESSAGE" on stderr and exit 1. The tool never dies of a
// signal it can catch: a closed pipe is a write error, and an interruption during a long
// transfer cancels it cleanly.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "tarnio/errors/tarn_error.h"
#include "tarnio/version.h"
#include "tools/tarn/commands.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

volatile std::sig_atomic_t interrupt_flag = 0;

void on_interrupt(int) { interrupt_flag = 1; }

int fail(const std::string& message) {
  std::fprintf(stderr, "tarn: %s\n", message.c_str());
  return kExitFailure;
}

}  // namespace

namespace tarn {

bool interrupted() { return interrupt_flag != 0; }

void watch_interruptions() {
  // Without SA_RESTART, so that a read of a pipe or a terminal returns and the transfer loop
  // sees the flag.
  struct sigaction action {};
  action.sa_handler = on_interrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace tarn

int main(int argc, char** argv) {
  CLI::App app{
      "tarn: read, write and inspect TBF stack files, their metadata and property documents."};
  app.name("tarn");
  app.set_version_flag("--version", std::string("tarn ") + TARNIO_VERSION_STRING);
  app.require_subcommand(1);
  tarn::add_types_command(app);
  tarn::add_props_command(app);
  tarn::add_units_command(app);
  tarn::add_info_command(app);
  tarn::add_write_command(app);
  tarn::add_read_command(app);
  tarn::add_meta_command(app);
  tarn::add_verify_command(app);
  tarn::add_demo_command(app);
  tarn::add_recover_command(app);
  tarn::add_compact_command(app);
  tarn::add_tcp_command(app);
  tarn::add_pack_command(app);
  tarn::add_unpack_command(app);
  tarn::add_ome_command(app);
  std::signal(SIGPIPE, SIG_IGN);

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
