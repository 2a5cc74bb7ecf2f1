// tarn tcp against servers on the loopback address: answers in order, and one-line failures.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tarnio/testing/loopback_server.h"

namespace {

using Tarn::testing::LoopbackServer;

struct ToolOutput {
  int status = -1;
  std::string output;  // standard output and error together
};

ToolOutput tarn_tcp(const std::string& arguments) {
  const std::string command = std::string(TARN_TOOL_PATH) + " tcp " + arguments + " 2>&1";
  ToolOutput run;
  FILE* pipe = ::popen(command.c_str(), "r");
  char block[4096];
  for (std::size_t got; (got = std::fread(block, 1, sizeof block, pipe)) > 0;) {
    run.output.append(block, got);
  }
  const int raw = ::pclose(pipe);
  run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return run;
}

// Answers each line with its length, and "BYE" with nothing.
void count_characters(int fd, int) {
  std::string pending;
  char data[256];
  for (ssize_t got; (got = ::recv(fd, data, sizeof data, 0)) > 0;) {
    pending.append(data, static_cast<std::size_t>(got));
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line == "BYE") continue;
      Tarn::testing::send_all(fd, std::to_string(line.size()) + "\n");
    }
  }
}

TEST(TarnTcp, PrintsEachAnswerAndFailsOnTheFirstMissingOne) {
  LoopbackServer server(count_characters);
  const std::string address = "127.0.0.1 " + std::to_string(server.port());
  const ToolOutput answered = tarn_tcp(address + " 'POS?' '' 'a b c'");
  EXPECT_EQ(answered.status, 0) << answered.output;
  EXPECT_EQ(answered.output, "4\n0\n5\n");

  const ToolOutput silent = tarn_tcp(address + " --timeout 0.2 x BYE y");
  EXPECT_EQ(silent.status, 1);
  EXPECT_EQ(silent.output, "1\ntarn: Timed out after 200 ms reading a line.\n");

  const int closed = Tarn::testing::loopback_socket(-1);
  const std::string port = std::to_string(Tarn::testing::port_of(closed));
  const ToolOutput refused = tarn_tcp("127.0.0.1 " + port + " x");
  ::close(closed);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output,
            "tarn: Could not connect to 127.0.0.1:" + port + ": Connection refused\n");
  EXPECT_EQ(tarn_tcp("127.0.0.1 0 x").status, 2);
  EXPECT_EQ(tarn_tcp("127.0.0.1 " + port).status, 2);
}

}  // namespace
