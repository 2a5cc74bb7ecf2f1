#pragma once

// Helpers shared by the fuzz targets: the input as text, the report of a broken property that
// stops the run, a reader that may only refuse with a documented message, and the round trip of
// what it read through the matching writer.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace tarnio_fuzz {

// The fuzz input as a string of bytes.
inline std::string input_text(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// Prints "<target>: <what>", the details below it, and aborts, which the engine reports as a
// crash with the input that caused it.
[[noreturn]] inline void fail(std::string_view target, std::string_view what,
                              std::string_view detail) {
  std::fprintf(stderr, "%.*s: %.*s\n%.*s\n", static_cast<int>(target.size()), target.data(),
               static_cast<int>(what.size()), what.data(), static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

// What `read` makes of `text`, or nothing when it throws Error with a message that starts with
// one of `documented`; any other message stops the run.
template <class Error, class Read>
auto read_or_refuse(std::string_view target, std::string_view text, Read read,
                    std::initializer_list<std::string_view> documented)
    -> std::optional<decltype(read(text))> {
  try {
    return read(text);
  } catch (const Error& error) {
    const std::string_view message = error.what();
    for (const std::string_view start : documented) {
      if (message.starts_with(start)) return std::nullopt;
    }
    fail(target, "the reader threw an undocumented message", message);
  }
}

// `write` must take what the reader made, and `read` must make the same value of that text
// again; `show` writes a value for the report. Error is what both may throw.
template <class Error, class Value, class Write, class Read, class Show>
void check_round_trip(std::string_view target, const Value& value, Write write, Read read,
                      Show show) {
  std::string text;
  Value again;
  try {
    text = write(value);
  } catch (const Error& error) {
    fail(target, "the writer refused a value the reader made",
         std::string(error.what()) + "\n" + show(value));
  }
  try {
    again = read(text);
  } catch (const Error& error) {
    fail(target, "the written text does not read back", std::string(error.what()) + "\n" + text);
  }
  if (!(again == value)) {
    fail(target, "the written text reads back as another value",
         "value:\n" + show(value) + "\nwrote:\n" + text + "\nread back:\n" + show(again));
  }
}

}  // namespace tarnio_fuzz
