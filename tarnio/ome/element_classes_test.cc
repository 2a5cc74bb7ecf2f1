// The typed element classes over the samples: values read through the classes, changed,
// written, validated and read back; references between the typed classes; refused keywords.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tarnio/ome/errors.h"
#include "tarnio/ome/root.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/ome_samples.h"
#include "tarnio/testing/temp_dir.h"

namespace OME {
namespace {

using Tarn::units::RuntimeValue;

std::unique_ptr<Root> read_sample(const std::string& name) {
  auto root = std::make_unique<Root>();
  root->read_XML(Tarn::testing::read_text(Tarn::testing::kOMESamples / name));
  return root;
}

// Writes the document, checks it against the schema and reads it into a new root.
std::unique_ptr<Root> written_and_read(Root& root) {
  Tarn::testing::TempDir dir;
  const std::string xml = root.XML();
  EXPECT_TRUE(Tarn::testing::validates_as_OME_XML(xml, dir.path() / "typed.ome.xml")) << xml;
  auto copy = std::make_unique<Root>();
  copy->read_XML(xml);
  return copy;
}

TEST(ElementClassesTest, InstrumentPartsAndSettingsReadChangeAndComeBack) {
  auto root = read_sample("instrument.ome.xml");
  Instrument& instrument = root->ome()->instruments()[0];
  EXPECT_EQ(instrument.microscope().get()->type(), Microscope_Type::Inverted);
  Laser laser(instrument.light_sources()[0]);
  EXPECT_EQ(instrument.light_sources()[1].kind(), "Arc");
  EXPECT_EQ(laser.laser_medium(), Laser_Medium::Ruby);
  EXPECT_EQ(laser.power()->unit().to_string(), "mW");  // the schema's default unit
  EXPECT_EQ(&laser.pump().get()->get_referent(), &instrument.light_sources()[1]);
  EXPECT_EQ(instrument.filter_sets()[0].dichroic_reference().get()->referent(),
            &instrument.dichroics()[0]);

  Pixels& pixels = *root->ome()->images()[0].pixels().get();
  Channel& channel = pixels.channels()[0];
  Light_Source_Settings& light = *channel.light_source_settings().get();
  EXPECT_EQ(light.referent(), &instrument.light_sources()[0]);
  EXPECT_DOUBLE_EQ(light.wavelength()->in("µm").value(), 0.51);
  EXPECT_EQ(channel.detector_settings().get()->binning(), Binning::_2x2);
  EXPECT_EQ(channel.light_path().get()->excitation_filter_references()[0].referent(),
            &instrument.filters()[3]);
  EXPECT_EQ(channel.color(), -2147483648);

  laser.set_type(Laser_Type::Dye);
  laser.set_power(RuntimeValue(0.25, "W"));
  laser.reset_laser_medium();
  pixels.set_physical_size_x(RuntimeValue(65, "nm"));
  pixels.set_type(Pixel_Type::double_complex);
  channel.set_acquisition_mode(Acquisition_Mode::STED);
  channel.detector_settings().get()->set_binning(Binning::Other);
  root->ome()->images()[0].set_description("changed");

  auto copy = written_and_read(*root);
  Laser laser_copy(copy->ome()->instruments()[0].light_sources()[0]);
  EXPECT_EQ(laser_copy.type(), Laser_Type::Dye);
  EXPECT_EQ(laser_copy.power()->to_string(), RuntimeValue(0.25, "W").to_string());
  EXPECT_FALSE(laser_copy.laser_medium());
  Image& image = copy->ome()->images()[0];
  Pixels& pixels_copy = *image.pixels().get();
  EXPECT_DOUBLE_EQ(pixels_copy.physical_size_x()->in("µm").value(), 0.065);
  EXPECT_EQ(pixels_copy.type(), Pixel_Type::double_complex);
  EXPECT_EQ(pixels_copy.channels()[0].acquisition_mode(), Acquisition_Mode::STED);
  EXPECT_EQ(pixels_copy.channels()[0].detector_settings().get()->binning(), Binning::Other);
  EXPECT_EQ(image.description(), "changed");
}

TEST(ElementClassesTest, ScreensPlatesAndWellsReferToTheirImages) {
  auto root = read_sample("hcs.ome.xml");
  OME& ome = *root->ome();
  Plate& plate = ome.plates()[0];
  EXPECT_EQ(plate.column_naming_convention(), Naming_Convention::letter);
  EXPECT_EQ(plate.rows(), 8);
  Well_Sample& sample = plate.wells()[0].well_samples()[0];
  EXPECT_EQ(sample.image_reference().get()->referent(), &ome.images()[0]);

  Screen& screen = ome.screens().append();
  screen.ID().set_actual(0);
  screen.set_name("screen");
  Reagent& reagent = screen.reagents().append();
  reagent.ID().set_actual(0);
  reagent.set_reagent_identifier("R-17");
  screen.plate_references().append().assign(plate);
  plate.wells()[0].reagent_reference().provide().set_ID(reagent.ID().value()->get_string());
  sample.set_position_x(RuntimeValue(3, "mm"));

  auto copy = written_and_read(*root);
  Screen& screen_copy = copy->ome()->screens()[0];
  EXPECT_EQ(screen_copy.plate_references()[0].referent(), &copy->ome()->plates()[0]);
  EXPECT_EQ(screen_copy.reagents()[0].reagent_identifier(), "R-17");
  Well& well = copy->ome()->plates()[0].wells()[0];
  EXPECT_EQ(*well.reagent_reference().get()->ID(), "Reagent:0");
  EXPECT_EQ(well.well_samples()[0].position_x()->to_string(), RuntimeValue(3, "mm").to_string());
}

TEST(ElementClassesTest, AnnotationKindsViewTheirItems) {
  auto root = read_sample("mapannotation.ome.xml");
  auto& annotations = root->ome()->structured_annotations().get()->annotations();
  Map_Annotation map(annotations[1]);
  EXPECT_EQ(annotations[1].kind(), "MapAnnotation");
  EXPECT_EQ(map.description(), "This is the description of the sample map B");
  EXPECT_EQ(map.value().get()->ms()[1].k(), "SampleKeyB-2");
  EXPECT_EQ(map.value().get()->ms()[1].text(), "SampleValueB-2");
  EXPECT_EQ(*root->ome()->images()[0].annotation_references()[1].ID(), "Annotation:2");

  auto xml = read_sample("xmlannotation-multi-value.ome.xml");
  XML_Annotation body(xml->ome()->structured_annotations().get()->annotations()[0]);
  EXPECT_EQ(body.namespace_(), "openmicroscopy.org/sample/body/multivalue");
  EXPECT_NE(body.value().get()->xml()->find("<"), std::string::npos);
}

TEST(ElementClassesTest, ShapeKindsShareTheListOfTheirROI) {
  Root root;
  ROI& roi = root.ROIs().append();
  roi.ID().set_actual(0);
  auto& shapes = roi.union_().provide().shapes();
  for (const char* kind : {"Rectangle", "Ellipse", "Label"}) {
    Shape& shape = shapes.append();
    shape.ID().set_actual(static_cast<std::int64_t>(shapes.size()));
    if (shape.kind() != kind) shape.set_kind(kind);  // an item is a Rectangle until named
  }
  auto& rectangle = dynamic_cast<Rectangle&>(shapes[0]);  // rectangles are objects of their own
  rectangle.set_x(1.5);
  rectangle.set_y(0);
  rectangle.set_width(3);
  rectangle.set_height(2);
  shapes[0].set_fill_rule(Fill_Rule::NonZero);
  Ellipse ellipse(shapes[1]);
  for (auto set :
       {&Ellipse::set_x, &Ellipse::set_y, &Ellipse::set_radius_x, &Ellipse::set_radius_y}) {
    (ellipse.*set)(4);
  }
  Label label(shapes[2]);
  label.set_x(0);
  label.set_y(1);
  label.set_text("label");

  auto copy = written_and_read(root);
  auto& read = copy->ROIs()[0].union_().get()->shapes();
  ASSERT_EQ(read.size(), 3u);
  EXPECT_EQ(dynamic_cast<Rectangle&>(read[0]).width(), 3);
  EXPECT_EQ(read[0].fill_rule(), Fill_Rule::NonZero);
  EXPECT_EQ(read[1].kind(), "Ellipse");
  EXPECT_EQ(Ellipse(read[1]).radius_y(), 4);
  EXPECT_EQ(Label(read[2]).text(), "label");
}

TEST(ElementClassesTest, UnknownKeywordsAndMissingMembersAreRefused) {
  Root root;
  Pixels& pixels = root.images().append().pixels().provide();
  EXPECT_THROW_MESSAGE(pixels.size_x(), std::runtime_error, "JSON path 'SizeX' not found.");
  pixels.set_member("Type", "uint7");
  EXPECT_THROW_MESSAGE(pixels.type(), Invalid_Data, "Invalid PixelType 'uint7' in Pixels.Type.");
  Channel& channel = pixels.channels().append();
  EXPECT_EQ(channel.color(), -1);  // absent: the schema's default
  channel.set_member("ContrastMethod", "Sepia");
  EXPECT_THROW_MESSAGE(channel.contrast_method(), Invalid_Data,
                       "Invalid ContrastMethod 'Sepia' in Channel.ContrastMethod.");
  EXPECT_THROW_MESSAGE(channel.set_pinhole_size(RuntimeValue(1, "s")), Invalid_Argument,
                       "'s' is not a unit of Channel.PinholeSize.");
  for (const auto keyword : enum_table(Pixel_Type{}).keywords()) {
    pixels.set_member("Type", keyword);
    pixels.set_type(pixels.type());
    EXPECT_EQ(pixels.member("Type").get_string(), keyword);
  }
}

}  // namespace
}  // namespace OME
