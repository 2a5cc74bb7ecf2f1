#pragma once

// TarnError: the one exception type of the library, also the carrier of warnings. The text is
// composed lazily by process() (or what()), which also records it as the process-wide last
// error; a warning is a TarnError flagged with do_warn() and delivered to the process-wide
// warning callback when it is destroyed.
//
// Threading: an object belongs to one thread. The last error and the warning callback are
// shared by the whole process; a later process() on any thread replaces the text that what()
// of every earlier error points at.

#include <cstdint>
#include <exception>
#include <functional>
#include <string>

#include "tarnio/export.h"

class TARNIO_EXPORT TarnError : public std::exception {
 public:
  using WarningCallback = std::function<void(const TarnError&)>;

  TarnError() : TarnError(nullptr, nullptr, 0) {}
  // Null pointers count as empty strings.
  TarnError(const char* function, const char* file, int line);
  // Copies every field but the thread, which stays the one that made this object.
  TarnError(const TarnError& other);
  TarnError& operator=(const TarnError& other);
  ~TarnError() override;

  // Formats like printf (at most 4095 characters are kept) and replaces the message; a null
  // format empties it.
  TarnError& operator()(const char* format, ...) __attribute__((format(printf, 2, 3)));
  TarnError& operator()(const std::string& message);
  // Converts wide text to UTF-8.
  TarnError& operator()(const std::wstring& message);
  TarnError& operator()(int id);
  operator int() const { return id_; }

  // Takes the calling thread's errno and the system's text for it.
  TarnError& do_oserr();
  TarnError& do_warn();
  TarnError& do_process();
  // Hands this error to the warning callback at once.
  void do_warn_now() const;

  // Composes the text, sends it to the debug output, records id and text as the last error and
  // returns id.
  int process() const;
  // Calls process() and returns the process-wide last error text: not owned by this object.
  const char* what() const noexcept override;

  const std::string& file() const { return file_; }
  const std::string& function() const { return function_; }
  const std::string& message() const { return message_; }
  const std::string& oserr() const { return oserr_; }
  int line() const { return line_; }
  int id() const { return id_; }
  int oserr_id() const { return oserr_id_; }
  bool is_warning() const { return warn_; }
  std::uint32_t thread() const { return thread_; }

  // An empty callback restores the default one, which prints what() and a newline to stderr.
  static void set_global_warning_callback(WarningCallback callback);

 private:
  std::string compose() const;

  static WarningCallback warning_cb_;

  std::string file_;
  std::string function_;
  std::int32_t line_ = 0;
  std::int32_t id_ = -1;
  std::int32_t oserr_id_ = 0;
  std::string message_;
  std::string oserr_;
  bool warn_ = false;
  bool process_ = false;
  std::uint32_t thread_ = 0;
};
