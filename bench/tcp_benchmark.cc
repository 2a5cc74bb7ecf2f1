// The TCP line client and shared named objects against the plain ways of doing the same, in the
// same run:
//   query: round trips of a short command line ("POS?") to an echo server on 127.0.0.1, through
//     TTcpClient::query against a loop of blocking send() and recv() on a socket of its own to
//     the same server. x_rate is the client's round trips per second over the loop's; it must
//     stay at or above 0.8. Timing is wall-clock time, as a round trip mostly waits on the
//     server's thread; each iteration runs a block of round trips of both sides, in alternating
//     order.
//   lock: lock, increment and unlock of a Tarn::Object<std::uint64_t> in this one process
//     against the same under a std::mutex, in CPU time: x_lock is the object's time over the
//     mutex's, limit 3 (a robust, process-shared, error-checking mutex does more book-keeping
//     than a plain one). robust_ns is a bare robust pthread mutex of the same kind, for
//     telling the mutex's own cost from the object's.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/bench_timing.h"
#include "tarnio/shared_objects/shared_object.h"
#include "tarnio/tcp/tcp_client.h"
#include "tarnio/testing/loopback_server.h"

namespace tarnio_bench {
namespace {

using Tarn::testing::LoopbackServer;

constexpr int kRoundTripsPerBlock = 2000;
constexpr double kQueryLimit = 0.8;
constexpr double kLockLimit = 3.0;
constexpr std::string_view kCommand = "POS?\n";

// A blocking socket connected to 127.0.0.1:`port`, sending at once like the client does.
int plain_connection(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("Could not connect the plain socket.");
  }
  return fd;
}

// One round trip of the plain loop: the command out, bytes in until the line's end.
void plain_round_trip(int fd) {
  Tarn::testing::send_all(fd, kCommand);
  char answer[64];
  std::size_t got = 0;
  while (got == 0 || answer[got - 1] != '\n') {
    const ssize_t n = ::recv(fd, answer + got, sizeof answer - got, 0);
    if (n <= 0) throw std::runtime_error("The echo server went away.");
    got += static_cast<std::size_t>(n);
  }
}

void BM_Query(benchmark::State& state) {
  LoopbackServer client_server(Tarn::testing::echo_bytes);
  LoopbackServer plain_server(Tarn::testing::echo_bytes);
  TTcpClient::Settings settings;
  settings.port = client_server.port();
  TTcpClient client(settings);
  client.connect();
  const int plain = plain_connection(plain_server.port());
  const std::string_view line = kCommand.substr(0, kCommand.size() - 1);
  double client_seconds = 0;
  double plain_seconds = 0;
  bool client_first = true;
  for (auto _ : state) {
    run_both(
        client_first,
        [&] {
          client_seconds += wall_seconds([&] {
            for (int i = 0; i < kRoundTripsPerBlock; ++i)
              benchmark::DoNotOptimize(client.query(line));
          });
        },
        [&] {
          plain_seconds += wall_seconds([&] {
            for (int i = 0; i < kRoundTripsPerBlock; ++i) plain_round_trip(plain);
          });
        });
    state.SetIterationTime(client_seconds + plain_seconds);
  }
  client.disconnect();
  ::close(plain);
  const double trips = static_cast<double>(state.iterations()) * kRoundTripsPerBlock;
  const double ratio = plain_seconds / client_seconds;
  state.counters["client_per_s"] = trips / client_seconds;
  state.counters["plain_per_s"] = trips / plain_seconds;
  state.counters["x_rate"] = ratio;
  state.SetLabel(verdict("x_rate", ratio, true, kQueryLimit));
}

void BM_Lock(benchmark::State& state) {
  const std::string name = "tarnio_bench." + std::to_string(::getpid()) + ".lock";
  Tarn::Object<std::uint64_t> object(name);
  std::mutex mutex;
  std::uint64_t plain_value = 0;
  constexpr int kLocksPerBlock = 10000;
  double object_seconds = 0;
  double mutex_seconds = 0;
  double robust_seconds = 0;
  bool object_first = true;
  pthread_mutex_t robust;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&robust, &attributes);
  for (auto _ : state) {
    const double robust_start = thread_cpu_seconds();
    for (int i = 0; i < kLocksPerBlock; ++i) {
      pthread_mutex_lock(&robust);
      benchmark::DoNotOptimize(++plain_value);
      pthread_mutex_unlock(&robust);
    }
    robust_seconds += thread_cpu_seconds() - robust_start;
    run_both(
        object_first,
        [&] {
          const double start = thread_cpu_seconds();
          for (int i = 0; i < kLocksPerBlock; ++i) ++*object.lock();
          object_seconds += thread_cpu_seconds() - start;
        },
        [&] {
          const double start = thread_cpu_seconds();
          for (int i = 0; i < kLocksPerBlock; ++i) {
            const std::lock_guard guard(mutex);
            benchmark::DoNotOptimize(++plain_value);
          }
          mutex_seconds += thread_cpu_seconds() - start;
        });
  }
  Tarn::remove_object(name);
  const double locks = static_cast<double>(state.iterations()) * kLocksPerBlock;
  const double ratio = object_seconds / mutex_seconds;
  state.counters["object_ns"] = object_seconds / locks * 1e9;
  state.counters["mutex_ns"] = mutex_seconds / locks * 1e9;
  state.counters["robust_ns"] = robust_seconds / locks * 1e9;
  state.counters["x_lock"] = ratio;
  state.SetLabel(verdict("x_lock", ratio, false, kLockLimit));
}

}  // namespace
}  // namespace tarnio_bench

int main(int argc, char** argv) {
  tarnio_bench::register_manual_time("BM_Query", tarnio_bench::BM_Query, 20);
  benchmark::RegisterBenchmark("BM_Lock", tarnio_bench::BM_Lock)->Iterations(200);
  return tarnio_bench::run_benchmarks(argc, argv);
}
