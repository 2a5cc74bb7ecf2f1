#include "tarnio/tcp/tcp_client.h"

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tarnio/errors/internal/raise.h"

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using Tarn::errors::internal::throw_tarn;

// The most read_line asks the system for at once.
constexpr std::size_t kReadChunk = 64 * 1024;

// The point in time `timeout` from now; a timeout beyond a year counts as a year, so that the
// clock's arithmetic cannot overflow, and a negative one as none.
Clock::time_point deadline_after(std::chrono::milliseconds timeout) {
  constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);
  return Clock::now() + std::clamp(timeout, std::chrono::milliseconds(0), kLongest);
}

}  // namespace

// The socket, the loop that drives it on the caller's thread, and the bytes received but not
// yet returned as lines. The socket is non-blocking: reads and writes take what the system has
// at once, and only when it has nothing, the loop runs a wait for the socket for at most the
// time left; a wait still pending then is cancelled by resetting the connection.
class TTcpClient::Connection {
 public:
  bool is_open() const { return socket_.is_open(); }
  // A buffer for write_line that keeps its room from line to line.
  std::string& outgoing() { return outgoing_; }

  // Ends the connection in order: what was written still reaches the peer.
  void close() {
    boost::system::error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_both, ignored);
    socket_.close(ignored);
    received_.clear();
    scanned_ = 0;
  }

  // Ends the connection after a failure with a reset: data not yet sent is dropped, so that no
  // stale command reaches the peer later, and the peer stops sending.
  void abort() {
    boost::system::error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    socket_.close(ignored);
    received_.clear();
    scanned_ = 0;
  }

  void connect(const Settings& settings) {
    close();
    const tcp::resolver::results_type endpoints = resolve(settings);
    boost::system::error_code result = asio::error::would_block;
    asio::async_connect(
        socket_, endpoints,
        [&](const boost::system::error_code& ec, const tcp::endpoint&) { result = ec; });
    if (!run_until(deadline_after(settings.connect_timeout))) {
      throw_tarn("Timed out after {} ms connecting to {}:{}.", settings.connect_timeout.count(),
                 settings.host, settings.port);
    }
    if (result) {
      abort();
      throw_tarn("Could not connect to {}:{}: {}", settings.host, settings.port, result.message());
    }
    // Commands are small and each waits for its answer: send them at once.
    socket_.set_option(tcp::no_delay(true), result);
    // Reads and writes go as far as they can at once and wait for the socket, with a deadline,
    // only when it has nothing to give or no room.
    socket_.non_blocking(true, result);
  }

  std::string read_line(const Settings& settings, std::chrono::milliseconds timeout) {
    const std::string& terminator = settings.terminator;
    const std::size_t limit = settings.max_line_length + terminator.size();
    const auto deadline = deadline_after(timeout);
    for (;;) {
      const std::size_t end = received_.find(terminator, scanned_);
      if (end != std::string::npos && end <= settings.max_line_length) {
        std::string line = received_.substr(0, end);
        received_.erase(0, end + terminator.size());
        scanned_ = 0;
        return line;
      }
      if (end != std::string::npos || received_.size() >= limit) {
        abort();
        throw_tarn("Line longer than the maximum of {} bytes.", settings.max_line_length);
      }
      // A terminator may begin in the last bytes searched and end in the next chunk.
      scanned_ = received_.size() - std::min(received_.size(), terminator.size() - 1);
      receive(std::min(kReadChunk, limit - received_.size()), deadline, timeout);
    }
  }

  // Sends all of `data` within `timeout`.
  void write(std::span<const std::byte> data, std::chrono::milliseconds timeout) {
    const std::size_t size = data.size();
    const auto deadline = deadline_after(timeout);
    while (!data.empty()) {
      boost::system::error_code ec;
      const std::size_t sent = socket_.write_some(asio::buffer(data.data(), data.size()), ec);
      if (ec == asio::error::would_block) {
        if (!wait(tcp::socket::wait_write, deadline)) {
          throw_tarn("Timed out after {} ms writing {} bytes.", timeout.count(), size);
        }
        continue;
      }
      if (ec) {
        abort();
        throw_tarn("Could not send {} bytes: {}", size, ec.message());
      }
      data = data.subspan(sent);
    }
  }

 private:
  // A numeric address needs no lookup; a name is looked up before the connect timeout starts,
  // as the system's resolver cannot be given a deadline without a thread of its own.
  tcp::resolver::results_type resolve(const Settings& settings) {
    boost::system::error_code ec;
    const auto flags = tcp::resolver::numeric_service;
    tcp::resolver resolver(io_);
    auto endpoints = resolver.resolve(settings.host, std::to_string(settings.port), flags, ec);
    if (ec) throw_tarn("Could not resolve '{}': {}", settings.host, ec.message());
    return endpoints;
  }

  // Appends at most `most` bytes from the socket to received_. The socket is non-blocking: a
  // read that finds nothing waits for the socket to become readable, until `deadline`.
  void receive(std::size_t most, Clock::time_point deadline, std::chrono::milliseconds timeout) {
    chunk_.resize(kReadChunk);
    for (;;) {
      boost::system::error_code ec;
      const std::size_t got = socket_.read_some(asio::buffer(chunk_.data(), most), ec);
      if (!ec) {
        received_.append(chunk_.data(), got);
        return;
      }
      if (ec == asio::error::would_block) {
        if (!wait(tcp::socket::wait_read, deadline)) {
          throw_tarn("Timed out after {} ms reading a line.", timeout.count());
        }
        continue;
      }
      const bool mid_line = !received_.empty();
      abort();
      if (ec == asio::error::eof && mid_line) {
        throw_tarn("Connection closed by the peer in the middle of a line.");
      }
      if (ec == asio::error::eof) throw_tarn("Connection closed by the peer.");
      throw_tarn("Could not receive: {}", ec.message());
    }
  }

  // Waits until the socket is ready for `what` or `deadline` passed; on timeout aborts the
  // connection and returns false. Errors of the socket show in the read or write that follows.
  bool wait(tcp::socket::wait_type what, Clock::time_point deadline) {
    if (deadline <= Clock::now()) {
      abort();
      return false;
    }
    socket_.async_wait(what, [](const boost::system::error_code&) {});
    return run_until(deadline);
  }

  // Runs the loop until the started operation completed, or aborts the connection and returns
  // false at `deadline`.
  bool run_until(Clock::time_point deadline) {
    io_.restart();
    io_.run_until(deadline);
    if (io_.stopped()) return true;
    abort();
    io_.run();  // lets the cancelled operation finish before its handler's locals go
    return false;
  }

  asio::io_context io_{1};
  tcp::socket socket_{io_};
  std::string received_;
  std::size_t scanned_ = 0;  // received_ holds no terminator before this offset
  std::vector<char> chunk_;
  std::string outgoing_;
};

TTcpClient::TTcpClient() : TTcpClient(Settings{}) {}

TTcpClient::TTcpClient(Settings settings) : connection_(std::make_unique<Connection>()) {
  configure(std::move(settings));
}

TTcpClient::TTcpClient(TTcpClient&&) noexcept = default;
TTcpClient& TTcpClient::operator=(TTcpClient&&) noexcept = default;
TTcpClient::~TTcpClient() = default;

void TTcpClient::configure(Settings settings) {
  if (settings.host.empty()) throw std::invalid_argument("Host name is empty.");
  if (settings.terminator.empty()) throw std::invalid_argument("Line terminator is empty.");
  if (settings.max_line_length == 0) throw std::invalid_argument("Maximum line length is 0.");
  const std::chrono::milliseconds zero{0};
  if (settings.connect_timeout < zero || settings.read_timeout < zero ||
      settings.write_timeout < zero) {
    throw std::invalid_argument("Timeout is negative.");
  }
  settings_ = std::move(settings);
}

const TTcpClient::Settings& TTcpClient::settings() const { return settings_; }

void TTcpClient::connect() {
  if (!connection_) connection_ = std::make_unique<Connection>();
  connection_->connect(settings_);
}

bool TTcpClient::is_connected() const { return connection_ && connection_->is_open(); }

void TTcpClient::disconnect() {
  if (connection_) connection_->close();
}

std::string TTcpClient::read_line() { return read_line(settings_.read_timeout); }

std::string TTcpClient::read_line(std::chrono::milliseconds timeout) {
  if (!is_connected()) throw_tarn("Not connected.");
  return connection_->read_line(settings_, timeout);
}

void TTcpClient::write_line(std::string_view line) {
  if (line.find(settings_.terminator) != std::string_view::npos) {
    throw std::invalid_argument("Line contains the terminator.");
  }
  if (!is_connected()) throw_tarn("Not connected.");
  // One send for the line and its end: instruments often take a lone terminator for a command.
  std::string& out = connection_->outgoing();
  out.assign(line);
  out += settings_.terminator;
  connection_->write(std::as_bytes(std::span(out)), settings_.write_timeout);
}

void TTcpClient::write_data(std::span<const std::byte> data) {
  if (!is_connected()) throw_tarn("Not connected.");
  connection_->write(data, settings_.write_timeout);
}

void TTcpClient::write_data(std::string_view data) { write_data(std::as_bytes(std::span(data))); }

std::string TTcpClient::query(std::string_view line) {
  write_line(line);
  return read_line();
}
