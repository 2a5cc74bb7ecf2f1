// tarn props: converts a property document between its XML dialects and JSON, or prints the
// value at a property path.

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tarnio/arrays/data_type.h"
#include "tarnio/props/cast.h"
#include "tarnio/props/json.h"
#include "tarnio/props/path.h"
#include "tarnio/props/xml.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

namespace dt = Tarn::dt;
namespace xml_format = Tarn::props::xml_format;

struct PropsOptions {
  std::string input;
  std::string to = "json";
  std::string output;
  std::string path;
};

// XML when the first character after blanks (and a byte order mark) is '<', else JSON. The XML
// reader takes the mark itself; JSON text has none, so it is dropped.
TProp parse_document(const std::string& text) {
  std::string_view rest = text;
  if (rest.starts_with("\xEF\xBB\xBF")) rest.remove_prefix(3);
  const std::size_t first = rest.find_first_not_of(" \t\r\n");
  if (first != std::string_view::npos && rest[first] == '<') {
    return tarn_import_xml(text, xml_format::detect);
  }
  return tarn_import_json(std::string(rest));
}

std::string with_line_end(std::string text) {
  if (text.empty() || text.back() != '\n') text.push_back('\n');
  return text;
}

std::string convert(const TProp& value, const std::string& to) {
  if (to == "json") return with_line_end(tarn_export_json(value, 2));
  const int dialect = to == "xml:1"   ? xml_format::toolbox
                      : to == "xml:3" ? xml_format::labview
                                      : xml_format::property;
  return with_line_end(tarn_export_xml(value, dialect));
}

// The element of a value array at `position`, as a value of its own.
TProp array_element(const TProp& array, const TPropSize& position) {
  const TProparrayBase* base = array.get_arr();
  const auto index = static_cast<std::size_t>(const_cast<TProparrayBase*>(base)->get_idx(position));
  const DataType code = base->element_type();
  if (code == dt::char_) return TProp(array.get<TProparray<TPropstring>>()[index]);
  if (code == dt::struct_) return TProp(array.get<TProparray<TPropstruct>>()[index]);
  // The other value arrays hold plain elements of the type's size.
  const std::size_t size = tarn_dt_get_size(code);
  if (size == 0) throw std::runtime_error("Type unknown or incompatible with property arrays.");
  TProp element = TProp::array(code, {});
  std::memcpy(element.value_ptr(), static_cast<const char*>(array.value_ptr()) + index * size,
              size);
  return element;
}

// A scalar or string as its text form; anything else as indented JSON.
std::string show(const TProp& value) {
  const DataType code = value.type_code();
  const bool has_text = !value.is_array() && code != dt::none && code != dt::empty &&
                        code != dt::struct_ && code != dt::cell;
  return with_line_end(has_text ? tarn_val2string(value) : tarn_export_json(value, 2));
}

std::string value_at(TProp& root, const std::string& path) {
  std::string error;
  const auto [found, position] = tarn_prop_getp_ex(&root, path, &error, false);
  if (found == nullptr) {
    throw std::runtime_error(fmt::format("Invalid property path '{}': {}", path,
                                         error.empty() ? "Unknown error." : error));
  }
  return show(position.empty() ? *found : array_element(*found, position));
}

void run_props(const PropsOptions& options) {
  TProp value = parse_document(read_input(options.input));
  write_output(options.output,
               options.path.empty() ? convert(value, options.to) : value_at(value, options.path));
}

}  // namespace

void add_props_command(CLI::App& app) {
  auto options = std::make_shared<PropsOptions>();
  CLI::App* command = app.add_subcommand(
      "props",
      "Convert a property document (XML of any dialect, or JSON) to another form, or print the "
      "value at a property path.");
  command->add_option("IN", options->input, "The document; '-' reads standard input.")->required();
  CLI::Option* to =
      command
          ->add_option("--to", options->to,
                       "The form to write: json (indented, the default), xml (dialect 2), xml:1, "
                       "xml:2 or xml:3.")
          ->check(CLI::IsMember({"json", "xml", "xml:1", "xml:2", "xml:3"}));
  command
      ->add_option("--get", options->path,
                   "Print the value at this property path: a scalar or string as its text, "
                   "anything else as indented JSON.")
      ->excludes(to);
  command->add_option("-o,--output", options->output, "Write to this file instead of stdout.");
  command->callback([options] { run_props(*options); });
}

}  // namespace tarn
