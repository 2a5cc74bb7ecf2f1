#include "tarnio/tcp/tcp_client.h"

#include <gtest/gtest.h>
#include <poll.h>
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
using namespace Tarn::testing;

TTcpClient connected(std::uint16_t port, std::size_t max_line = 64 * 1024,
                     const std::string& terminator = "\n") {
  TTcpClient::Settings settings;
  settings.port = port;
  settings.max_line_length = max_line;
  settings.terminator = terminator;
  TTcpClient client(settings);
  client.connect();
  return client;
}

TEST(TcpClient, EchoedLinesComeBackWhole) {
  LoopbackServer server(echo_bytes);
  TTcpClient client = connected(server.port());
  client.write_data("A 1\nB");  // one line and a half, ended by the next write
  client.write_line(" 2");
  EXPECT_EQ(client.read_line(), "A 1");
  EXPECT_EQ(client.read_line(std::chrono::milliseconds::max()), "B 2");  // no overflow
  for (int i = 0; i < 100; ++i) ASSERT_EQ(client.query(std::to_string(i)), std::to_string(i));
  EXPECT_THROW(client.write_line("two\nlines"), std::invalid_argument);
  client.disconnect();
  EXPECT_THROW_MESSAGE(client.query("x"), TarnError, "Not connected.");
}

TEST(TcpClient, LinesSentByteByByteAreAssembled) {
  LoopbackServer server([](int fd, int) {
    for (const char& byte : std::string_view("a\rb\r\n\r\nc\r\n")) {
      send_all(fd, std::string_view(&byte, 1));
      std::this_thread::sleep_for(1ms);
    }
  });
  TTcpClient client = connected(server.port(), 100, "\r\n");
  for (const char* line : {"a\rb", "", "c"}) EXPECT_EQ(client.read_line(), line);
}

// Each failure closes the connection, and the next connect starts afresh.
TEST(TcpClient, MisbehavingPeersFailTheCallThatMeetsThem) {
  LoopbackServer server([](int fd, int index) {
    char ignored[4096];
    if (index == 0) send_all(fd, "complete\npart");  // and closes
    if (index == 2)
      while (::recv(fd, ignored, sizeof ignored, 0) > 0) {
      }
    pollfd gone{fd, POLLRDHUP, 0};  // reads nothing until the client goes: the writer fills up
    if (index == 3) ::poll(&gone, 1, 10000);
    if (index == 4) echo_bytes(fd, index);
  });
  TTcpClient client = connected(server.port());
  EXPECT_EQ(client.read_line(), "complete");
  EXPECT_THROW_MESSAGE(client.read_line(), TarnError,
                       "Connection closed by the peer in the middle of a line.");
  client.connect();
  EXPECT_THROW_MESSAGE(client.read_line(), TarnError, "Connection closed by the peer.");
  client.connect();
  EXPECT_THROW_MESSAGE(client.read_line(150ms), TarnError,
                       "Timed out after 150 ms reading a line.");
  EXPECT_FALSE(client.is_connected());
  TTcpClient::Settings settings = client.settings();
  settings.write_timeout = 100ms;
  client.configure(settings);
  client.connect();
  EXPECT_THROW_MESSAGE(client.write_data(std::vector<std::byte>(64 << 20)), TarnError,
                       "Timed out after 100 ms writing 67108864 bytes.");
  client.connect();
  EXPECT_EQ(client.query("again"), "again");
}

TEST(TcpClient, LongLineIsRefusedWithinTheBoundOrReadWhole) {
  constexpr std::size_t kLine = std::size_t{16} << 20;
  LoopbackServer server([](int fd, int) {
    const std::string block(1 << 20, 'x');
    for (std::size_t sent = 0; sent < kLine && send_all(fd, block); sent += block.size()) {
    }
    send_all(fd, "\n");
  });
  TTcpClient client = connected(server.port());
  EXPECT_THROW_MESSAGE(client.read_line(), TarnError,
                       "Line longer than the maximum of 65536 bytes.");
  const std::string line = connected(server.port(), kLine).read_line(20s);
  EXPECT_EQ(line.size(), kLine);
  EXPECT_EQ(line.find_first_not_of('x'), std::string::npos);
}

TEST(TcpClient, ConnectFailuresNameTheCause) {
  const int closed = loopback_socket(-1);  // bound, not listening: refuses
  const std::string port = std::to_string(port_of(closed));
  EXPECT_THROW_MESSAGE(connected(port_of(closed)), TarnError,
                       "Could not connect to 127.0.0.1:" + port + ": Connection refused");
  ::close(closed);

  // A listener whose queue is full drops further connection requests: connect has to wait.
  const int full = loopback_socket(0);
  TTcpClient::Settings settings;
  settings.port = port_of(full);
  settings.connect_timeout = 200ms;
  std::vector<TTcpClient> clients;
  for (int i = 0; i < 3; ++i) clients.emplace_back(settings);
  EXPECT_THROW_MESSAGE(
      for (TTcpClient& client
           : clients) client.connect(),
      TarnError,
      "Timed out after 200 ms connecting to 127.0.0.1:" + std::to_string(settings.port) + ".");
  ::close(full);
}

}  // namespace
