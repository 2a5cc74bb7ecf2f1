// tarn ome: converts an OME-XML document to its JSON form and back, prints the OME metadata of
// a TBF file, and changes attributes of it in place.

#include <fmt/format.h>

#include <array>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/ome/ome_xml.h"
#include "tarnio/ome/root.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

struct OmeOptions {
  std::string input;
  std::string to;
  std::string output;
  std::vector<std::string> assignments;
};

bool is_xml(std::string_view text) {
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && text[first] == '<';
}

bool is_tbf(const std::string& name) {
  if (name == "-") return false;
  std::array<char, 8> magic{};
  std::ifstream in(name, std::ios::binary);
  return in.read(magic.data(), magic.size()) &&
         std::string_view(magic.data(), magic.size()) == "TARN_BF\n";
}

// VALUE as JSON when it reads as JSON (a number, true, "text"), else as the text itself.
JSON::Value parse_value(const std::string& text) {
  try {
    return JSON::read(text);
  } catch (const std::exception&) {
    return JSON::Value(text);
  }
}

// Sets PATH=VALUE in `document`: an existing value at PATH, or a new member of the object that
// the path up to its last '.' names.
void assign(JSON::Value& document, const std::string& assignment) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw std::runtime_error(fmt::format("Expected PATH=VALUE, got '{}'.", assignment));
  }
  const std::string path = assignment.substr(0, equals);
  JSON::Value value = parse_value(assignment.substr(equals + 1));
  if (JSON::Value* existing = document.find_path(path)) {
    *existing = std::move(value);
    return;
  }
  const std::size_t dot = path.rfind('.');
  JSON::Value& parent = dot == std::string::npos ? document : document.at_path(path.substr(0, dot));
  if (!parent.is_object()) throw std::runtime_error(fmt::format("JSON path '{}' not found.", path));
  parent.set(dot == std::string::npos ? path : path.substr(dot + 1), std::move(value));
}

// Changes the file's OME metadata; only a document that reads back as OME-XML, with every
// reference resolved, replaces "ome_xml", and only the metadata block is written anew.
void set_file_ome(const OmeOptions& options) {
  const auto file = Tarn::open_file(options.input, Tarn::bf::DiskFile::Mode::append);
  JSON::Value document = file->get_OME_root().node();
  for (const std::string& assignment : options.assignments) assign(document, assignment);
  OME::Root checked;
  checked.read_XML(OME::write_OME_XML(document));
  file->set_metadata("ome_xml", checked.XML());
  file->close();
}

void run_ome(const OmeOptions& options) {
  const bool tbf = is_tbf(options.input);
  if (!options.assignments.empty()) {
    if (!tbf) throw std::runtime_error("--set needs a TBF file.");
    set_file_ome(options);
    return;
  }
  const auto print = [&](OME::Root& root, const std::string& to) {
    write_output(options.output, to == "json" ? JSON::write(root.node(), 2) + "\n" : root.XML());
  };
  if (tbf) {
    const auto file = Tarn::open_file(options.input, Tarn::bf::DiskFile::Mode::read);
    print(file->get_OME_root(), options.to.empty() ? "xml" : options.to);
    return;
  }
  const std::string text = read_input(options.input);
  const bool from_xml = is_xml(text);
  // A JSON document passes through the XML form, so that it is checked as OME-XML is; the
  // root then checks that every reference names an element.
  OME::Root root;
  root.read_XML(from_xml ? text : OME::write_OME_XML(JSON::read(text)));
  print(root, options.to.empty() ? (from_xml ? "json" : "xml") : options.to);
}

}  // namespace

void add_ome_command(CLI::App& app) {
  auto options = std::make_shared<OmeOptions>();
  CLI::App* command = app.add_subcommand(
      "ome",
      "Convert an OME-XML document to its JSON form or back, checking it against the OME "
      "2016-06 schema's types; or print the OME metadata of a TBF file, or change it.\n"
      "Examples: tarn ome image.ome.xml -o image.json\n"
      "          tarn ome cells.tbf --to json\n"
      "          tarn ome cells.tbf --set 'OME[0].Image[0].Name=\"cell 1\"'");
  command
      ->add_option("IN", options->input,
                   "OME-XML or its JSON form ('-' reads standard input), or a TBF file.")
      ->required();
  command
      ->add_option("--to", options->to,
                   "The form to write: xml or json (default: the other; xml for a TBF file).")
      ->check(CLI::IsMember({"xml", "json"}));
  command->add_option("-o,--output", options->output, "Write to this file instead of stdout.");
  command
      ->add_option("--set", options->assignments,
                   "PATH=VALUE: set the value at PATH of the TBF file's OME metadata in its JSON "
                   "form (VALUE as JSON, else as text); the file changes only when the result "
                   "is valid OME-XML, and only its metadata block is written anew.")
      ->excludes("-o")
      ->excludes("--to");
  command->callback([options] { run_ome(*options); });
}

}  // namespace tarn
