#include "tarnio/errors/tarn_error.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "tarnio/errors/internal/debug_output.h"
#include "tarnio/errors/internal/last_error_state.h"
#include "tarnio/errors/internal/os_error.h"
#include "tarnio/strings/internal/encoding.h"

namespace {

using namespace Tarn::errors::internal;

// Every piece of a composed text is formatted in a buffer of this size; longer output is cut.
constexpr std::size_t kFormatBufferSize = 4096;

__attribute__((format(printf, 1, 0))) std::string format_bounded(const char* format, va_list args) {
  char buffer[kFormatBufferSize];
  const int written = std::vsnprintf(buffer, sizeof buffer, format, args);
  if (written < 0) return {};
  return std::string(buffer, std::min(static_cast<std::size_t>(written), sizeof buffer - 1));
}

__attribute__((format(printf, 1, 2))) std::string format_piece(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string piece = format_bounded(format, args);
  va_end(args);
  return piece;
}

void default_warning_callback(const TarnError& warning) {
  std::fprintf(stderr, "%s\n", warning.what());
}

}  // namespace

TarnError::WarningCallback TarnError::warning_cb_ = default_warning_callback;

TarnError::TarnError(const char* function, const char* file, int line)
    : file_(file != nullptr ? file : ""),
      function_(function != nullptr ? function : ""),
      line_(line),
      thread_(current_thread_id()) {}

TarnError::TarnError(const TarnError& other)
    : std::exception(other),
      file_(other.file_),
      function_(other.function_),
      line_(other.line_),
      id_(other.id_),
      oserr_id_(other.oserr_id_),
      message_(other.message_),
      oserr_(other.oserr_),
      warn_(other.warn_),
      process_(other.process_),
      thread_(current_thread_id()) {}

TarnError& TarnError::operator=(const TarnError& other) {
  if (this == &other) return *this;
  file_ = other.file_;
  function_ = other.function_;
  line_ = other.line_;
  id_ = other.id_;
  oserr_id_ = other.oserr_id_;
  message_ = other.message_;
  oserr_ = other.oserr_;
  warn_ = other.warn_;
  process_ = other.process_;
  return *this;
}

TarnError::~TarnError() {
  // A destructor must not throw: a failing callback or an allocation failure is dropped.
  try {
    if (warn_) {
      do_warn_now();
    } else if (process_) {
      process();
    }
  } catch (...) {
  }
}

TarnError& TarnError::operator()(const char* format, ...) {
  if (format == nullptr) {
    message_.clear();
    return *this;
  }
  va_list args;
  va_start(args, format);
  message_ = format_bounded(format, args);
  va_end(args);
  return *this;
}

TarnError& TarnError::operator()(const std::string& message) {
  message_ = message;
  return *this;
}

TarnError& TarnError::operator()(const std::wstring& message) {
  message_ = Tarn::strings::internal::to_utf8(message);
  return *this;
}

TarnError& TarnError::operator()(int id) {
  id_ = id;
  return *this;
}

TarnError& TarnError::do_oserr() {
  const int code = errno;
  oserr_id_ = code;
  oserr_ = os_error_text(code);
  return *this;
}

TarnError& TarnError::do_warn() {
  warn_ = true;
  return *this;
}

TarnError& TarnError::do_process() {
  process_ = true;
  return *this;
}

void TarnError::do_warn_now() const { warning_cb_(*this); }

std::string TarnError::compose() const {
  const char* severity = warn_ ? "WARNING" : "ERROR";
  std::string text;
  if (line_ != 0 && !file_.empty()) {
    text = format_piece("%s(%d): %s\n    ", file_.c_str(), line_, severity);
    if (!function_.empty()) text += format_piece("in function '%s':\n    ", function_.c_str());
  } else {
    text = format_piece("%s\n    ", severity);
  }
  text += message_;
  if (oserr_id_ > 0) text += format_piece("\n    os_error(%d): %s", oserr_id_, oserr_.c_str());
  return text;
}

int TarnError::process() const {
  std::string text = compose();
  text += '\n';
  debug_output(text);
  text.pop_back();
  set_last_error(id_, text);
  return id_;
}

const char* TarnError::what() const noexcept {
  try {
    process();
  } catch (...) {
    // Out of memory while composing: the last error text is left as it was.
  }
  return last_error_text();
}

void TarnError::set_global_warning_callback(WarningCallback callback) {
  warning_cb_ = callback ? std::move(callback) : WarningCallback(default_warning_callback);
}
