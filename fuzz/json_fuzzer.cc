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

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto read = [](std::string_view json) { return JSON::read(json); };
  const auto value = tarnio_fuzz::read_or_refuse<std::runtime_error>("json_fuzzer", text, read,
                                                                     {"JSON parse error at line "});
  if (!value) return 0;
  for (const int indent : {-1, 0, 2}) {
    tarnio_fuzz::check_round_trip<std::runtime_error>(
        "json_fuzzer", *value, [=](const JSON::Value& v) { return JSON::write(v, indent); }, read,
        [](const JSON::Value& v) { return JSON::write(v, 2); });
  }
  return 0;
}
