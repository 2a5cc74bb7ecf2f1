// The OME description a file keeps of its measurement: built from "ome_xml" when asked for,
// extended by every stack committed, written back at close.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tarnio/bf/file_interface.h"
#include "tarnio/json/read_write.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/ome_element.h"
#include "tarnio/ome/root.h"
#include "tarnio/stack_factory/describe_stack.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Mode = DiskFile::Mode;

// An acquisition: instrument with objective, detector, laser and filters, an image whose
// channels use them, and a ROI of that image.
void describe_acquisition(OME::Root& root) {
  std::ifstream in("tests/data/ome/samples/instrument.ome.xml");
  std::stringstream text;
  text << in.rdbuf();
  root.read_XML(text.str());
  root.ROIs().append(JSON::read(
      R"({"ID": "ROI:0", "Union": [{"Shape": [{"ID": "Shape:0", "X": 1, "Y": 2, "Width": 3,
          "Height": 4}]}]})"));
  root.images()[0].set_member("ROIRef", JSON::read(R"([{"ID": "ROI:0"}])"));
}

void add_stack(FileInterface& file, const std::vector<std::uint64_t>& shape) {
  const auto stack = file.add_stack(dt::uint8, shape);
  stack->set_labels({"X", "Y", "C", "Z", "T"});
  stack->set_units(0, units::RuntimeValue(1.0, "µm"));
  stack->write(std::vector<std::uint8_t>(stack->number_of_elements()).data(),
               stack->number_of_elements());
  stack->commit();
}

TEST(OmeMetadata, DescriptionRoundTripsAndGrowsWithAnAppend) {
  testing::TempDir dir;
  const auto path = dir / "acquisition.tbf";
  const std::vector<std::uint64_t> shape{6, 5, 2, 3, 4};
  OME::Root expected;
  describe_acquisition(expected);
  {
    auto file = create_file();
    file->open(path, Mode::write);
    describe_acquisition(file->get_OME_root());
    add_stack(*file, shape);
    Tarn::describe_stack(expected, *file->stack(0), 0);
    file->close();
  }
  JSON::Value before = open_file(path, Mode::read)->get_OME_root().node();
  // The file holds OME-XML, which orders attributes as the schema does.
  OME::Root reread;
  reread.read_XML(expected.XML());
  EXPECT_EQ(before, reread.node());

  auto file = open_file(path, Mode::append);
  add_stack(*file, {2, 2, 1, 1, 1});
  // A stack left unfinished is dropped at close, and with it its description.
  file->add_stack(dt::uint8, {4})->write(std::vector<std::uint8_t>(2).data(), 2);
  file->close();
  file = open_file(path, Mode::read);
  auto& images = file->get_OME_root().images();
  ASSERT_EQ(images.size(), 3u);
  EXPECT_EQ(file->number_of_stacks(), 2u);
  for (std::size_t i = 0; i < 2; ++i) EXPECT_EQ(images[i].node(), reread.images()[i].node());
  EXPECT_EQ(Tarn::stack_images(file->get_OME_root(), 2)[1], &images[2]);
  EXPECT_EQ(Tarn::fill_type(images[2]).shape(), (std::vector<std::uint64_t>{2, 2}));
}

TEST(OmeMetadata, BadOmeXmlFailsOnlyTheRootAndSurvivesAnAppend) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"<OME><Image", "OME-XML parse error at offset 10: Error parsing start element tag."},
      {"<Root/>", "Unsupported OME-XML namespace ''."},
      {R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06"><Image ID="Image:0">
          <InstrumentRef ID="Instrument:5"/><Pixels ID="Pixels:0" DimensionOrder="XYZCT"
          Type="uint8" SizeX="1" SizeY="1" SizeZ="1" SizeC="1" SizeT="1"><MetadataOnly/>
          </Pixels></Image></OME>)",
       "Incomplete data: missing Instrument:5."}};
  for (const auto& [xml, message] : cases) {
    testing::TempDir dir;
    const auto path = dir / "bad.tbf";
    auto file = create_file();
    file->open(path, Mode::write);
    file->set_metadata("ome_xml", xml);
    add_stack(*file, {2, 2, 1, 1, 1});
    file->close();
    file = open_file(path, Mode::append);
    add_stack(*file, {3, 2, 1, 1, 1});
    file->close();

    file = open_file(path, Mode::read);
    ASSERT_EQ(file->number_of_stacks(), 2u) << xml;
    EXPECT_EQ(file->metadata().at("ome_xml"), xml);
    std::vector<std::uint8_t> data(6, 1);
    file->stack(1)->read(0, std::span<std::uint8_t>(data));
    EXPECT_EQ(data, std::vector<std::uint8_t>(6, 0));
    for (int attempt = 0; attempt < 2; ++attempt) {
      EXPECT_THROW_MESSAGE(file->get_OME_root(), std::invalid_argument, message);
    }
  }
}

}  // namespace
}  // namespace Tarn::bf
