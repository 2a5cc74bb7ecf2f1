#pragma once

// TTcpClient: a line-oriented TCP client for instruments (stage controllers, light sources,
// lasers) that speak a text protocol, one command and one answer per line. Every blocking step
// has a deadline: connect, read_line and the writes give up after their timeout, reset the
// connection (what was not yet sent is dropped, so no stale command arrives later) and throw a
// TarnError that names the step and the time; a later connect() starts afresh. Lines are read into
// a buffer bounded by the maximum line length, so a peer that never ends its line costs no more
// memory than that.
//
// The client has no thread of its own: the network work runs on the calling thread inside each
// call. One object belongs to one thread at a time.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tarnio/export.h"

class TARNIO_EXPORT TTcpClient {
 public:
  struct Settings {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;
    std::chrono::milliseconds connect_timeout{5000};
    // The deadline of one read_line (and of query's answer).
    std::chrono::milliseconds read_timeout{5000};
    // The deadline of one write_line or write_data, for a peer that stops reading.
    std::chrono::milliseconds write_timeout{5000};
    // Ends every line in both directions; not part of the lines read_line returns.
    std::string terminator = "\n";
    // The longest line read_line accepts, terminator not counted.
    std::size_t max_line_length = 64 * 1024;
  };

  TTcpClient();
  explicit TTcpClient(Settings settings);
  TTcpClient(const TTcpClient&) = delete;
  TTcpClient& operator=(const TTcpClient&) = delete;
  TTcpClient(TTcpClient&&) noexcept;
  TTcpClient& operator=(TTcpClient&&) noexcept;
  // Closes the connection.
  ~TTcpClient();

  // Replaces the settings; they apply from the next call on (host and port from the next
  // connect). Throws std::invalid_argument for an empty host or terminator, a maximum
  // line length of 0 or a negative timeout.
  void configure(Settings settings);
  const Settings& settings() const;

  // Resolves the host and tries each of its addresses in turn until one accepts, all within the
  // connect timeout. An open connection is closed first. Throws TarnError "Could not resolve
  // '{host}': {system text}", "Could not connect to {host}:{port}: {system text}" (the last
  // address's failure) or "Timed out after {} ms connecting to {host}:{port}.".
  void connect();
  bool is_connected() const;
  // Closes the connection and drops anything received but not read; harmless when closed.
  void disconnect();

  // The next line without its terminator, waiting at most the read timeout (or `timeout`).
  // Throws TarnError "Not connected.", "Timed out after {} ms reading a line.", "Connection
  // closed by the peer." (between lines), "Connection closed by the peer in the middle of a
  // line.", "Line longer than the maximum of {} bytes." or "Could not receive: {system text}".
  // Every failure but "Not connected." closes the connection.
  std::string read_line();
  std::string read_line(std::chrono::milliseconds timeout);

  // Sends `line` and the terminator. Throws std::invalid_argument "Line contains the
  // terminator." (it would split into two commands), and TarnError "Not connected.", "Timed
  // out after {} ms writing {} bytes." or "Could not send {} bytes: {system text}"; a failed
  // write closes the connection.
  void write_line(std::string_view line);
  // Sends `data` as it is; fails as write_line does.
  void write_data(std::span<const std::byte> data);
  void write_data(std::string_view data);

  // write_line(line), then read_line(): the peer's answer.
  std::string query(std::string_view line);

 private:
  class Connection;

  Settings settings_;
  std::unique_ptr<Connection> connection_;
};
