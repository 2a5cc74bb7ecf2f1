#include "tarnio/tcp/tcp_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/loopback_server.h"

namespace {

using namespace std::chrono_literals;
using Tarn::testing::LoopbackServer;
using Tarn::testing::send_all;

// Sends back every byte it receives until the client goes.
void echo(int fd, int) {
  char data[4096];
  for (ssize_t got; (got = ::recv(fd, data, sizeof data, 0)) > 0;) {
    if (!send_all(fd, std::string_view(data, static_cast<std::size_t>(got)))) return;
  }
}

// Reads and ignores everything until the client goes: a peer that never answers.
void stall(int fd, int) {
  char data[4096];
  while (::recv(fd, data, sizeof data, 0) > 0) {
  }
}

TTcpClient client_of(const LoopbackServer& server, std::size_t max_line = 64 * 1024) {
  TTcpClient::Settings settings;
  settings.port = server.port();
  settings.connect_timeout = 2000ms;
  settings.read_timeout = 2000ms;
  settings.max_line_length = max_line;
  return TTcpClient(settings);
}

TEST(TcpClient, QueriesAndRawDataReachAnEchoServer) {
  LoopbackServer server(echo);
  TTcpClient client = client_of(server);
  client.connect();
  EXPECT_EQ(client.query("POS?"), "POS?");
  EXPECT_EQ(client.query(""), "");
  // Raw data holding two terminators comes back as two lines, the second one in two writes.
  client.write_data("A 1\nB");
  client.write_data(std::string_view(" 2\n"));
  EXPECT_EQ(client.read_line(), "A 1");
  EXPECT_EQ(client.read_line(), "B 2");
  for (int i = 0; i < 100; ++i) ASSERT_EQ(client.query(std::to_string(i)), std::to_string(i));
  EXPECT_THROW(client.write_line("two\nlines"), std::invalid_argument);
  client.disconnect();
  EXPECT_FALSE(client.is_connected());
  EXPECT_THROW_MESSAGE(client.query("x"), TarnError, "Not connected.");
}

TEST(TcpClient, AssemblesLinesSentByteByByte) {
  struct Case {
    std::string terminator;
    std::string sent;
    std::vector<std::string> lines;
  };
  const std::vector<Case> cases = {
      {"\n", "first line\nsecond\n", {"first line", "second"}},
      {"\r\n", "a\rb\r\n\r\nc\r\n", {"a\rb", "", "c"}},
      {"END", "xENxEND12ENDEND", {"xENx", "12", ""}},
  };
  for (const Case& c : cases) {
    LoopbackServer server([&](int fd, int) {
      for (const char byte : c.sent) {
        if (!send_all(fd, std::string_view(&byte, 1))) return;
        std::this_thread::sleep_for(1ms);
      }
    });
    TTcpClient::Settings settings;
    settings.port = server.port();
    settings.terminator = c.terminator;
    TTcpClient client(settings);
    client.connect();
    for (const std::string& line : c.lines) EXPECT_EQ(client.read_line(), line) << c.terminator;
  }
}

TEST(TcpClient, StalledPeerTimesOutAndTheClientConnectsAgain) {
  LoopbackServer server([](int fd, int index) { index == 0 ? stall(fd, index) : echo(fd, index); });
  TTcpClient client = client_of(server);
  client.connect();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THROW_MESSAGE(client.read_line(150ms), TarnError,
                       "Timed out after 150 ms reading a line.");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
  EXPECT_FALSE(client.is_connected());
  client.connect();
  EXPECT_EQ(client.query("again"), "again");
}

TEST(TcpClient, PeerClosingIsReportedWithWhereItHappened) {
  LoopbackServer server([](int fd, int index) {
    if (index == 0) send_all(fd, "complete\npart");
  });
  TTcpClient client = client_of(server);
  client.connect();
  EXPECT_EQ(client.read_line(), "complete");
  EXPECT_THROW_MESSAGE(client.read_line(), TarnError,
                       "Connection closed by the peer in the middle of a line.");
  EXPECT_FALSE(client.is_connected());
  client.connect();
  EXPECT_THROW_MESSAGE(client.read_line(), TarnError, "Connection closed by the peer.");
}

TEST(TcpClient, HundredMebibyteLineIsRefusedWithinTheBoundOrReadWhole) {
  constexpr std::size_t kLine = std::size_t{100} << 20;
  LoopbackServer server([](int fd, int) {
    const std::string block(1 << 20, 'x');
    for (std::size_t sent = 0; sent < kLine; sent += block.size()) {
      if (!send_all(fd, block)) return;
    }
    send_all(fd, "\n");
  });
  TTcpClient client = client_of(server);
  client.connect();
  EXPECT_THROW_MESSAGE(client.read_line(), TarnError,
                       "Line longer than the maximum of 65536 bytes.");
  EXPECT_FALSE(client.is_connected());

  TTcpClient roomy = client_of(server, kLine);
  roomy.connect();
  const std::string line = roomy.read_line(20s);
  EXPECT_EQ(line.size(), kLine);
  EXPECT_EQ(line.find_first_not_of('x'), std::string::npos);
}

TEST(TcpClient, ConnectFailuresNameTheCause) {
  // A bound socket that does not listen refuses connections.
  const int closed = Tarn::testing::loopback_socket(-1);
  TTcpClient::Settings settings;
  settings.port = Tarn::testing::port_of(closed);
  TTcpClient client(settings);
  EXPECT_THROW_MESSAGE(
      client.connect(), TarnError,
      "Could not connect to 127.0.0.1:" + std::to_string(settings.port) + ": Connection refused");
  ::close(closed);

  // A listener whose queue is full drops further connection requests: connect has to wait.
  const int full = Tarn::testing::loopback_socket(0);
  TTcpClient::Settings queued;
  queued.port = Tarn::testing::port_of(full);
  queued.connect_timeout = 200ms;
  std::vector<TTcpClient> fillers;
  for (int i = 0; i < 2; ++i) {
    fillers.emplace_back(queued);
    try {
      fillers.back().connect();
    } catch (const TarnError&) {
    }
  }
  TTcpClient late(queued);
  EXPECT_THROW_MESSAGE(
      late.connect(), TarnError,
      "Timed out after 200 ms connecting to 127.0.0.1:" + std::to_string(queued.port) + ".");
  ::close(full);

  settings.host = "no-such-host.invalid";
  client.configure(settings);
  EXPECT_THROW(client.connect(), TarnError);
  settings.terminator.clear();
  EXPECT_THROW(client.configure(settings), std::invalid_argument);
}

}  // namespace
