// Fuzz target for JSON text. JSON::read either returns a value or throws a std::runtime_error
// "JSON parse error at line ..."; anything else fails. A value that reads must come back equal
// from the text JSON::write makes of it, compact and indented.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "tarnio/json/read_write.h"
#include "tarnio/json/value.h"

namespace {

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  tarnio_fuzz::fail("json_fuzzer", what, detail);
}

void check_round_trip(const JSON::Value& value, int indent) {
  const std::string text = JSON::write(value, indent);
  JSON::Value again;
  try {
    again = JSON::read(text);
  } catch (const std::runtime_error& error) {
    fail("the written text does not read back", std::string(error.what()) + "\n" + text);
  }
  if (!(again == value)) {
    fail("the written text reads back as another value",
         "wrote:\n" + text + "\nread back, written again:\n" + JSON::write(again, indent));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  JSON::Value value;
  try {
    value = JSON::read(text);
  } catch (const std::runtime_error& error) {
    if (!std::string_view(error.what()).starts_with("JSON parse error at line ")) {
      fail("JSON::read threw an undocumented message", error.what());
    }
    return 0;
  }
  for (const int indent : {-1, 0, 2}) check_round_trip(value, indent);
  return 0;
}
