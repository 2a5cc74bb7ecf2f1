#include "tarnio/stack_factory/get_kalix.h"

#include <variant>

#include "tarnio/archive/archive.h"

namespace Tarn {

JSON::Value get_kalix(arrays::StackInfoInterface& info) {
  auto tags = info.safe_tags();
  const auto found = tags->find(Kalix::Archive::kTag);
  if (found == tags->end()) return {};
  const auto value = found->second.access();
  const JSON::Value* json = std::get_if<JSON::Value>(&*value);
  return json != nullptr ? *json : JSON::Value();
}

}  // namespace Tarn
