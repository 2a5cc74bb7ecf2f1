// What tarn info shows of the stacks that hold a packed directory tree: the label and the
// identifiers of the "kalix" tag.

#include <fmt/format.h>

#include <string>

#include "tarnio/json/read_write.h"
#include "tarnio/stack_factory/get_kalix.h"
#include "tools/tarn/commands.h"

namespace tarn {

namespace {

// A member of an archive description as JSON text: quoted and escaped, so a row stays one line.
std::string member_text(const JSON::Value& description, const char* key) {
  const JSON::Value* value = description.find(key);
  return value != nullptr ? JSON::write(*value) : "-";
}

}  // namespace

std::string archive_lines(const Tarn::bf::FileInterface& file) {
  std::string out;
  for (std::size_t i = 0; i < file.number_of_stacks(); ++i) {
    const JSON::Value description = Tarn::get_kalix(*file.stack(i));
    if (description.is_null()) continue;
    if (out.empty()) out = "\n";
    out += fmt::format("stack {} holds archive {} (aid {}, did {}, sid {})\n", i,
                       member_text(description, "label"), member_text(description, "aid"),
                       member_text(description, "did"), member_text(description, "sid"));
  }
  return out;
}

void add_archive_json(const Tarn::bf::FileInterface& file, JSON::Value& stacks) {
  for (std::size_t i = 0; i < file.number_of_stacks() && i < stacks.size(); ++i) {
    JSON::Value description = Tarn::get_kalix(*file.stack(i));
    if (!description.is_null()) stacks[i].set("kalix", std::move(description));
  }
}

}  // namespace tarn
