#pragma once

// LoopbackServer: a TCP server on 127.0.0.1, on a port the system picks, that hands each
// connection it accepts to a function on a thread of its own, one connection after the other,
// until the object is destroyed. The function gets the socket and the connection's index
// (0, 1, ...) and returns when it is done with it; the server then closes the socket. For tests
// only: a serving function must return once its client has gone, or the destructor waits.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace Tarn::testing {

// A socket of 127.0.0.1 bound to a free port; listening when `backlog` is not negative. Throws
// std::runtime_error when the system refuses.
inline int loopback_socket(int backlog) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      (backlog >= 0 && ::listen(fd, backlog) != 0)) {
    if (fd >= 0) ::close(fd);
    throw std::runtime_error("Could not open a loopback socket.");
  }
  return fd;
}

inline std::uint16_t port_of(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

// Sends all of `data`; false once the peer has gone.
inline bool send_all(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

// A serving function that sends back every byte it receives until the client goes.
inline void echo_bytes(int fd, int) {
  char data[4096];
  for (ssize_t got; (got = ::recv(fd, data, sizeof data, 0)) > 0;) {
    if (!send_all(fd, std::string_view(data, static_cast<std::size_t>(got)))) return;
  }
}

class LoopbackServer {
 public:
  using Serve = std::function<void(int fd, int index)>;

  explicit LoopbackServer(Serve serve, int backlog = 8)
      : listener_(loopback_socket(backlog)), thread_([this, serve = std::move(serve)] {
          for (int index = 0;; ++index) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;  // the destructor shut the listener down
            serve(fd, index);
            ::close(fd);
          }
        }) {}
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;
  ~LoopbackServer() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }

  std::uint16_t port() const { return port_of(listener_); }

 private:
  int listener_;
  std::thread thread_;
};

}  // namespace Tarn::testing
