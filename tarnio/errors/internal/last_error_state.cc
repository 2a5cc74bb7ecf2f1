#include "tarnio/errors/internal/last_error_state.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Tarn::errors::internal {
namespace {

constexpr std::size_t kInitialCapacity = 16 * 1024;

struct LastError {
  LastError() { text.reserve(kInitialCapacity); }

  std::mutex mutex;
  int id = 0;
  std::string text;
  std::vector<std::string> retired;
};

LastError& last_error() {
  static LastError state;
  return state;
}

}  // namespace

void set_last_error(int id, std::string_view text) {
  LastError& state = last_error();
  std::lock_guard lock(state.mutex);
  state.id = id;
  if (text.size() > state.text.capacity()) {
    const std::size_t capacity = std::max(text.size(), 2 * state.text.capacity());
    state.retired.push_back(std::move(state.text));
    state.text = std::string();
    state.text.reserve(capacity);
  }
  state.text.assign(text);
}

int last_error_id() {
  LastError& state = last_error();
  std::lock_guard lock(state.mutex);
  return state.id;
}

const char* last_error_text() {
  LastError& state = last_error();
  std::lock_guard lock(state.mutex);
  return state.text.c_str();
}

}  // namespace Tarn::errors::internal
