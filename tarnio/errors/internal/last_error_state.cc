#include "tarnio/errors/internal/last_error_state.h"

#include <mutex>
#include <string>

namespace Tarn::errors::internal {
namespace {

struct LastError {
  LastError() { text.reserve(kLastErrorCapacity); }

  std::mutex mutex;
  int id = 0;
  // Never grows past the capacity reserved here, so it never moves.
  std::string text;
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
  state.text.assign(text.substr(0, kLastErrorCapacity));
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
