#include "tarnio/props/internal/xml_support.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "tarnio/props/xml.h"

namespace Tarn::props::internal {

std::string element_path(const pugi::xml_node& element) {
  std::vector<std::string> steps;
  for (pugi::xml_node node = element; node && node.type() == pugi::node_element;
       node = node.parent()) {
    std::size_t place = 1;
    std::size_t same_named = 1;
    for (pugi::xml_node sibling = node.previous_sibling(node.name()); sibling;
         sibling = sibling.previous_sibling(node.name())) {
      ++place;
      ++same_named;
    }
    if (node.next_sibling(node.name())) ++same_named;
    steps.push_back(same_named > 1 ? fmt::format("{}[{}]", node.name(), place) : node.name());
  }
  std::string path;
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) path += "/" + *step;
  return path;
}

LocatedXmlError::LocatedXmlError(const std::string& message, const pugi::xml_node& element)
    : std::runtime_error(fmt::format("{}\nLocation:\n{}", message, element_path(element))) {}

pugi::xml_attribute required_attribute(const pugi::xml_node& element, const char* name) {
  pugi::xml_attribute attribute = element.attribute(name);
  if (!attribute) throw std::runtime_error(fmt::format("Attribute '{}' does not exist", name));
  return attribute;
}

namespace {

struct LineAndColumn {
  std::size_t line = 1;
  std::size_t column = 1;
};

LineAndColumn locate_offset(std::string_view text, std::ptrdiff_t offset) {
  LineAndColumn where;
  const auto end = static_cast<std::size_t>(
      std::clamp<std::ptrdiff_t>(offset, 0, static_cast<std::ptrdiff_t>(text.size())));
  for (std::size_t i = 0; i < end; ++i) {
    if (text[i] == '\n') {
      ++where.line;
      where.column = 1;
    } else {
      ++where.column;
    }
  }
  return where;
}

// Stops at the first element nested deeper than kMaxXmlDepth. pugixml's traversal is a loop
// over the tree, not a recursion, and runs inside the library, one call per node.
class DepthCheck final : public pugi::xml_tree_walker {
 public:
  bool for_each(pugi::xml_node& node) override {
    // depth() is 0 for the root element; a node's children are one deeper.
    if (depth() < kMaxXmlDepth || node.type() != pugi::node_element) return true;
    too_deep = true;
    return false;
  }

  bool too_deep = false;
};

}  // namespace

void parse_document(pugi::xml_document& document, std::string_view text) {
  const unsigned options = pugi::parse_default | pugi::parse_ws_pcdata_single;
  const pugi::xml_parse_result result =
      document.load_buffer(text.data(), text.size(), options, pugi::encoding_utf8);
  if (!result) {
    const LineAndColumn where = locate_offset(text, result.offset);
    throw std::runtime_error(fmt::format("Malformed xml: {} at line {}, column {}.",
                                         result.description(), where.line, where.column));
  }
  DepthCheck depth_check;
  document.traverse(depth_check);
  if (depth_check.too_deep) {
    throw std::runtime_error(fmt::format("Xml nesting deeper than {} levels.", kMaxXmlDepth));
  }
}

}  // namespace Tarn::props::internal
