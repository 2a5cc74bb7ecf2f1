// The --compression option that tarn write and tarn compact share.

#include <stdexcept>
#include <string>

#include "tools/tarn/commands.h"

namespace tarn {

namespace {

using Tarn::bf::StackImp;

bool parse(const std::string& text, Tarn::bf::StackCompression& compression) {
  if (text == "none") {
    compression = {StackImp::Compression::none, 0};
    return true;
  }
  if (text == "zlib") {
    compression = {StackImp::Compression::zlib, 6};
    return true;
  }
  if (text.size() == 6 && text.starts_with("zlib:") && text[5] >= '0' && text[5] <= '9') {
    compression = {StackImp::Compression::zlib, static_cast<std::uint32_t>(text[5] - '0')};
    return true;
  }
  return false;
}

}  // namespace

Tarn::bf::StackCompression parse_compression(const std::string& text) {
  Tarn::bf::StackCompression compression;
  if (!parse(text, compression)) {
    throw std::invalid_argument("Expected none, zlib or zlib:0 to zlib:9.");
  }
  return compression;
}

CLI::Option* add_compression_option(CLI::App& command, std::string& text,
                                    const std::string& description) {
  return command.add_option("--compression", text, description)
      ->check(CLI::Validator(
          [](std::string& value) -> std::string {
            Tarn::bf::StackCompression compression;
            return parse(value, compression) ? std::string()
                                             : "expected none, zlib or zlib:0 to zlib:9";
          },
          "none|zlib[:LEVEL]"));
}

}  // namespace tarn
