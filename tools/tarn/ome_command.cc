// tarn ome: converts an OME-XML document to its JSON form and back.

#include <memory>
#include <string>
#include <string_view>

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
};

bool is_xml(std::string_view text) {
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && text[first] == '<';
}

void run_ome(const OmeOptions& options) {
  const std::string text = read_input(options.input);
  const bool from_xml = is_xml(text);
  // A JSON document passes through the XML form, so that it is checked as OME-XML is; the
  // root then checks that every reference names an element.
  OME::Root root;
  root.read_XML(from_xml ? text : OME::write_OME_XML(JSON::read(text)));
  const std::string to = options.to.empty() ? (from_xml ? "json" : "xml") : options.to;
  write_output(options.output, to == "json" ? JSON::write(root.node(), 2) + "\n" : root.XML());
}

}  // namespace

void add_ome_command(CLI::App& app) {
  auto options = std::make_shared<OmeOptions>();
  CLI::App* command = app.add_subcommand(
      "ome",
      "Convert an OME-XML document to its JSON form or back, checking it against the OME "
      "2016-06 schema's types.\nExample: tarn ome image.ome.xml -o image.json");
  command->add_option("IN", options->input, "OME-XML or its JSON form; '-' reads standard input.")
      ->required();
  command->add_option("--to", options->to, "The form to write: xml or json (default: the other).")
      ->check(CLI::IsMember({"xml", "json"}));
  command->add_option("-o,--output", options->output, "Write to this file instead of stdout.");
  command->callback([options] { run_ome(*options); });
}

}  // namespace tarn
