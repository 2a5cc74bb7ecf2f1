// tarn tcp: sends lines to an instrument that speaks a line protocol over TCP and prints each
// answer on a line of its own.

#include <fmt/format.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tarnio/tcp/tcp_client.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

struct TcpOptions {
  std::string host;
  std::uint16_t port = 0;
  double timeout_seconds = 5;
  std::vector<std::string> lines;
};

void run_queries(const TcpOptions& options) {
  TTcpClient::Settings settings;
  settings.host = options.host;
  settings.port = options.port;
  const auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(options.timeout_seconds));
  settings.connect_timeout = settings.read_timeout = settings.write_timeout = timeout;
  TTcpClient client(settings);
  client.connect();
  for (const std::string& line : options.lines) {
    fmt::print("{}\n", client.query(line));
    std::fflush(stdout);
  }
}

}  // namespace

void add_tcp_command(CLI::App& app) {
  auto options = std::make_shared<TcpOptions>();
  CLI::App* command = app.add_subcommand(
      "tcp",
      "Send each LINE to a TCP server that answers line by line and print each answer.\n"
      "Example: tarn tcp 127.0.0.1 5000 --timeout 2 '*IDN?' 'POS?'");
  command->add_option("HOST", options->host, "Host name or address")->required();
  command->add_option("PORT", options->port, "Port")->required()->check(CLI::Range(1, 65535));
  command->add_option("LINE", options->lines, "The lines to send, in order")->required();
  command
      ->add_option("--timeout", options->timeout_seconds,
                   "Seconds to wait for the connection and for each answer (at most a day)")
      ->check(CLI::Range(0.001, 86400.0));
  command->callback([options] { run_queries(*options); });
}

}  // namespace tarn
