#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/ome/errors.h"
#include "tarnio/ome/extensions/channel_extension.h"
#include "tarnio/ome/extensions/image_extensions.h"
#include "tarnio/ome/extensions/instrument_extensions.h"
#include "tarnio/ome/extensions/project_extensions.h"
#include "tarnio/ome/internal/schema.h"
#include "tarnio/ome/ome_xml.h"
#include "tarnio/ome/root.h"
#include "tarnio/ome/vendor.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace OME {
namespace {

// An XMLAnnotation of `path` in the vendor domain (or of another namespace when `path` holds a
// full one) with `values` under `member`.
std::string annotation(int id, std::string_view path, std::string_view values,
                       std::string_view member = "extension") {
  const std::string ns = path.starts_with('/') ? vendor_namespace(path) : std::string(path);
  return fmt::format(R"({{"ID": "Annotation:{}", "Namespace": "{}", "#kind": "XMLAnnotation",
                         "{}": [{}]}})",
                     id, ns, member, values);
}

// Every extension with every member, and the modulo annotation, each referenced by its element.
std::string full_document() {
  const std::string annotations = fmt::format(
      "{}", fmt::join(
                std::vector<std::string>{annotation(0, Channel::Extension::kPath, R"({
        "other_acquisition_mode": "STED_RESCUE", "dye_reference": [{"ID": "Dye:0"}],
        "band_reference": [{"ID": "Band:0"}], "color_map": "yellow", "overlay_color_map": "magenta",
        "excitation": [{"other_light_source_settings": [{"power": 1.5, "power_unit": "mW"}]}],
        "deactivation": [{"wavelength": 775, "wavelength_unit": "nm", "z_component": 0.3,
          "LightSourceSettings": [{"ID": "LightSource:0", "Attenuation": 0.5, "Wavelength": 775,
                                   "WavelengthUnit": "nm"}],
          "other_light_source_settings": [{"power": 20, "power_unit": "mW"}]}],
        "gating": [{"delay": 0.5, "delay_unit": "ns", "width": 8, "width_unit": "ns"}],
        "line": [{"accumulation": 4}],
        "RESCUE": [{"significance_level": 0.05, "signal_level_threshold": 3,
                    "interpolation_threshold": 0.25}],
        "other_detector_settings": [{"detector_elements": [
          {"offset_x": 1, "offset_x_unit": "µm", "offset_y": -1e-3, "offset_y_unit": "mm"},
          {"offset_x": 0, "offset_y": 0}]}]})"),
                 annotation(1, Detector::Extension::kPath,
                            R"({"other_type": "SPAD_Array", "dead_time": 1.5,
                                "dead_time_unit": "ns"})"),
                 annotation(2, Image::Extension::kPath, R"({"type": "derived",
        "acquisition_end_date": "2026-01-01T00:00:05", "angle": 90, "angle_unit": "deg",
        "frame_step": 1, "line_step": 2, "pixel_step": 0.5, "scan_curve": "sinusoidal",
        "scan_direction": "bidirectional", "derivation_description": "deconvolved <& \"fitted\">",
        "source_image": [{"ID": "Image:1"}], "parameter_images": [{"ID": "Image:1"}]})"),
                 annotation(3, Instrument::Extension::kPath,
                            R"({"pinhole": [{"reference_wavelength": 640,
                                            "reference_wavelength_unit": "nm"}]})"),
                 annotation(4, Light_Path::Extension::kPath, R"({
        "excitation_filter_settings": [{"filter_reference": [{"ID": "Filter:0"}], "cut_in": 500,
          "cut_in_unit": "nm", "cut_out": 550, "cut_out_unit": "nm"}],
        "emission_filter_settings": [{"filter_reference": [{"ID": "Filter:0"}]}, {"cut_in": 600}],
        "aberrations": [{"primary_spherical": 0.1, "primary_spherical_slope_z": -0.01}]})"),
                 annotation(5, Folder::Extension::kPath, R"({
        "creation_date": "2026-01-01T00:00:00", "has_bookmark": true, "is_overview": false,
        "Processing": [{"Grid": [{"columns": 3, "rows": 2, "spacing_x": 100,
          "spacing_x_unit": "µm", "spacing_y": 90, "spacing_y_unit": "µm"}]}]})"),
                 annotation(6, Objective::Extension::kPath, R"({"other_immersion": "Silicone"})"),
                 annotation(7, Project::Extension::kPath, R"({
        "dye": [{"ID": "Dye:0", "name": "ATTO 647N", "color_map": "red",
          "overlay_color_map": "unknown", "excitation_wavelength": 640,
          "excitation_wavelength_unit": "nm", "emission_wavelength": 669,
          "emission_wavelength_unit": "nm"}],
        "band": [{"ID": "Band:0", "name": "far red", "color_map": "white",
          "overlay_color_map": "orange", "lower_wavelength": 650, "lower_wavelength_unit": "nm",
          "upper_wavelength": 720, "upper_wavelength_unit": "nm"}]})"),
                 annotation(8, Rectangle::Extension::kPath, R"({"position_x_unit": "µm",
        "position_y_unit": "µm", "position_z": 1.5, "position_z_unit": "µm", "size_x_unit": "µm",
        "size_y_unit": "µm", "size_z": 0.5, "size_z_unit": "µm"})"),
                 annotation(9, Image::Modulo::kNamespace, R"({"ModuloAlongT": [{"Type": "lifetime",
        "TypeDescription": "TCSPC", "Unit": "ps", "Start": 0, "Step": 500, "End": 1000,
        "Label": ["early", "late"]}]})",
                            "Modulo")},
                ",\n"));
  return fmt::format(R"({{"OME": [{{
    "Project": [{{"ID": "Project:0", "AnnotationRef": [{{"ID": "Annotation:7"}}]}}],
    "Folder": [{{"ID": "Folder:0", "AnnotationRef": [{{"ID": "Annotation:5"}}]}}],
    "Instrument": [{{"ID": "Instrument:0",
      "LightSource": [{{"ID": "LightSource:0", "#kind": "Laser"}}],
      "Detector": [{{"ID": "Detector:0", "Type": "Other",
                     "AnnotationRef": [{{"ID": "Annotation:1"}}]}}],
      "Objective": [{{"ID": "Objective:0", "AnnotationRef": [{{"ID": "Annotation:6"}}]}}],
      "Filter": [{{"ID": "Filter:0"}}],
      "AnnotationRef": [{{"ID": "Annotation:3"}}]}}],
    "Image": [{{"ID": "Image:0", "Pixels": [{{"ID": "Pixels:0", "DimensionOrder": "XYZCT",
        "Type": "uint8", "SizeX": 1, "SizeY": 1, "SizeZ": 1, "SizeC": 1, "SizeT": 3,
        "Channel": [{{"ID": "Channel:0", "AcquisitionMode": "Other",
          "LightPath": [{{"AnnotationRef": [{{"ID": "Annotation:4"}}]}}],
          "AnnotationRef": [{{"ID": "Annotation:0"}}]}}],
        "MetadataOnly": [{{}}]}}],
      "AnnotationRef": [{{"ID": "Annotation:2"}}, {{"ID": "Annotation:9"}}]}},
      {{"ID": "Image:1", "Pixels": [{{"ID": "Pixels:1", "DimensionOrder": "XYZCT",
        "Type": "uint8", "SizeX": 1, "SizeY": 1, "SizeZ": 1, "SizeC": 1, "SizeT": 1,
        "MetadataOnly": [{{}}]}}]}}],
    "ROI": [{{"ID": "ROI:0", "Union": [{{"Shape": [{{"ID": "Shape:0", "#kind": "Rectangle",
      "X": 0, "Y": 0, "Width": 2, "Height": 2, "AnnotationRef": [{{"ID": "Annotation:8"}}]}}]}}]}}],
    "StructuredAnnotations": [{{"Annotation": [{}]}}]}}]}})",
                     annotations);
}

// Empty when the document validates against the schema, else what xmllint reports.
std::string schema_errors(const std::string& xml, const std::filesystem::path& file) {
  std::ofstream(file) << xml;
  const std::string command = fmt::format(
      "XML_CATALOG_FILES=tests/data/ome/schema/2016-06/catalog.xml xmllint --noout --nonet "
      "--schema tests/data/ome/schema/2016-06/ome.xsd {0} 2>{0}.log",
      file.string());
  if (std::system(command.c_str()) == 0) return "";
  std::ifstream log(file.string() + ".log");
  return {std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>()};
}

TEST(ExtensionsTest, EveryExtensionReachesTheXMLInItsNamespaceAndComesBackEqual) {
  Root root;
  root.assign(JSON::read(full_document()));
  root.resolve_references();
  const JSON::Value tree = root.node();
  const std::string xml = root.XML();
  Tarn::testing::TempDir dir;
  EXPECT_EQ(schema_errors(xml, dir.path() / "extensions.ome.xml"), "");
  for (std::string_view path :
       {Channel::Extension::kPath, Detector::Extension::kPath, Folder::Extension::kPath,
        Image::Extension::kPath, Instrument::Extension::kPath, Light_Path::Extension::kPath,
        Objective::Extension::kPath, Project::Extension::kPath, Rectangle::Extension::kPath}) {
    const std::string ns = vendor_namespace(path);
    EXPECT_NE(xml.find(fmt::format(R"(Namespace="{}")", ns)), std::string::npos) << ns;
    EXPECT_NE(xml.find(fmt::format(R"(<Extension xmlns="{}")", ns)), std::string::npos) << ns;
  }
  EXPECT_NE(xml.find(R"(<deactivation wavelength="775" wavelength_unit="nm" z_component="0.3">)"
                     R"(<LightSourceSettings ID="LightSource:0" Attenuation="0.5")"),
            std::string::npos);
  EXPECT_NE(xml.find(R"(<Label>early</Label><Label>late</Label>)"), std::string::npos);

  Root back;
  back.read_XML(xml);
  // The annotations come back equal; the rest of the document is the OME-XML mapping's own.
  EXPECT_EQ(back.node().at_path("OME[0].StructuredAnnotations"),
            tree.at_path("OME[0].StructuredAnnotations"));
  EXPECT_EQ(write_OME_XML(JSON::read(JSON::write(read_OME_XML(xml)))), xml);

  // Each element reaches its annotation as an object of its extension class.
  Image& image = back.images()[0];
  Channel& channel = image.pixels().get()->channels()[0];
  Channel::Extension::Values& values = *channel.find_extension()->find_values();
  EXPECT_EQ(values.dye_reference().get()->referent(), &back.find_dye("Dye:0"));
  EXPECT_EQ(values.band_reference().get()->referent(), &back.find_band("Band:0"));
  EXPECT_EQ(values.deactivation().get()->quantity("wavelength"),
            Tarn::units::RuntimeValue(0.775, "µm"));
  EXPECT_EQ(values.other_detector_settings().get()->detector_elements()[0].quantity("offset_y"),
            Tarn::units::RuntimeValue(-1, "µm"));
  EXPECT_EQ(channel.acquisition_mode(), Acquisition_Mode::STED_RESCUE);
  EXPECT_EQ(back.find_detector("Detector:0").type(), Detector_Type::SPAD_Array);
  EXPECT_EQ(image.find_extension()->find_values()->source_image().get()->referent(),
            &back.images()[1]);
  EXPECT_EQ(*image.find_modulo()->find_values()->along_T().get()->value("End"), JSON::Value(1000));
  auto* filter = channel.light_path().get()->find_extension()->find_values();
  EXPECT_EQ(filter->excitation_filter_settings()[0].filter_reference().get()->referent(),
            &back.find_filter("Filter:0"));
  EXPECT_TRUE(*back.first_folder()->find_extension()->find_values()->value("has_bookmark") ==
              JSON::Value(true));
  EXPECT_NE(back.first_instrument()->find_extension(), nullptr);
  EXPECT_NE(back.find_objective("Objective:0").find_extension(), nullptr);
  auto& shapes = back.ROIs()[0].union_().get()->shapes();
  EXPECT_NE(dynamic_cast<Rectangle&>(shapes[0]).find_extension(), nullptr);
}

// A channel of one image with the given annotations, read from OME-XML.
std::string channel_document(std::string_view references, std::string_view annotations) {
  return fmt::format(R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">
    <Image ID="Image:0"><Pixels ID="Pixels:0" DimensionOrder="XYZCT" Type="uint8" SizeX="1"
      SizeY="1" SizeZ="1" SizeC="1" SizeT="1"><Channel ID="Channel:0">{}</Channel>
      <MetadataOnly/></Pixels></Image>
    <StructuredAnnotations>{}</StructuredAnnotations></OME>)",
                     references, annotations);
}

std::string xml_annotation(int id, std::string_view path, std::string_view element) {
  const std::string ns = vendor_namespace(path);
  return fmt::format(R"(<XMLAnnotation ID="Annotation:{}" Namespace="{}"><Value>{}</Value>
                        </XMLAnnotation>)",
                     id, ns, fmt::format(fmt::runtime(element), ns));
}

const JSON::Value& extension_values(Root& root) {
  Channel& channel = root.images()[0].pixels().get()->channels()[0];
  return channel.find_extension()->find_values()->node();
}

TEST(ExtensionsTest, UpdateCarriesTheOlderChannelAnnotationsIntoTheExtension) {
  const std::string kept = channel_document(
      R"(<AnnotationRef ID="Annotation:0"/>)",
      xml_annotation(0, Channel::Extension::kPath, R"(<Extension xmlns="{}" color_map="white">
        <deactivation wavelength="775" wavelength_unit="nm" z_component="0.5">
          <LightSourceSettings Attenuation="0.25" Wavelength="775" WavelengthUnit="nm"/>
        </deactivation><gating delay="1" width="5" delay_unit="ns" width_unit="ns"/>
        <line accumulation="3"/></Extension>)"));
  const std::string separate = channel_document(
      R"(<AnnotationRef ID="Annotation:1"/><AnnotationRef ID="Annotation:0"/>
         <AnnotationRef ID="Annotation:2"/><AnnotationRef ID="Annotation:3"/>)",
      xml_annotation(0, Channel::Extension::kPath, R"(<Extension xmlns="{}" color_map="white"/>)") +
          xml_annotation(1, Channel::Extension::kDeactivationPath,
                         R"(<Deactivation xmlns="{}" wavelength="775" wavelength_unit="nm"
               z_component="0.5"><LightSourceSettings Attenuation="0.25" Wavelength="775"
               WavelengthUnit="nm"/></Deactivation>)") +
          xml_annotation(2, Channel::Extension::kGatingPath,
                         R"(<Gating xmlns="{}" delay="1" width="5" delay_unit="ns"
                                    width_unit="ns"/>)") +
          xml_annotation(3, Channel::Extension::kLinesPath,
                         R"(<Lines xmlns="{}" accumulation="3"/>)"));
  Root expected;
  expected.read_XML(kept);
  Root updated;
  updated.read_XML(separate);
  updated.update();
  EXPECT_EQ(extension_values(updated), extension_values(expected));
  // The older annotations are gone with their references; a second update changes nothing.
  EXPECT_EQ(updated.annotations().size(), 1u);
  EXPECT_EQ(updated.node().at_path("OME[0].Image[0].Pixels[0].Channel[0].AnnotationRef"),
            JSON::read(R"([{"ID": "Annotation:0"}])"));
  const JSON::Value once = updated.node();
  updated.update();
  EXPECT_EQ(updated.node(), once);

  Root incomplete;
  incomplete.read_XML(channel_document(
      R"(<AnnotationRef ID="Annotation:1"/>)",
      xml_annotation(1, Channel::Extension::kDeactivationPath,
                     R"(<Deactivation xmlns="{}" wavelength="775" wavelength_unit="nm"/>)")));
  const JSON::Value unchanged = incomplete.node();
  EXPECT_THROW_MESSAGE(incomplete.update(), std::runtime_error,
                       "JSON path 'z_component' not found.");
  EXPECT_EQ(incomplete.node(), unchanged);
}

TEST(ExtensionsTest, SettersWriteIntoTheExtensionCreatedOnFirstUse) {
  Root root;
  Image& image = root.images().append();
  image.ID().set_actual(0);
  Channel& channel = image.pixels().provide().channels().append();
  const JSON::Value before = root.node();
  EXPECT_EQ(channel.find_extension(), nullptr);  // the find form creates nothing
  EXPECT_EQ(channel.acquisition_mode(), std::nullopt);
  EXPECT_EQ(root.node(), before);

  channel.set_acquisition_mode(Acquisition_Mode::STED_Probing_with_STED_Probing);
  channel.set_signal_level_threshold(3);
  channel.set_interpolation_threshold(0.5);
  channel.set_RESCUE_significance_level(0.05);
  channel.set_line_accumulation(2);
  channel.set_deactivation_z_component(0.25);
  Light_Source& laser = root.provide_light_sources().append();
  laser.ID().set_actual(4);
  channel.set_deactivation_light_source(laser, 0.5, Tarn::units::RuntimeValue(775, "nm"));
  EXPECT_EQ(channel.acquisition_mode(), Acquisition_Mode::STED_Probing_with_STED_Probing);
  EXPECT_EQ(channel.node().at("AcquisitionMode"), JSON::Value("Other"));
  EXPECT_EQ(root.annotations()[0].node(),
            JSON::read(fmt::format(R"({{"Namespace": "{}",
    "#kind": "XMLAnnotation", "ID": "Annotation:0", "extension": [{{
    "other_acquisition_mode": "STED_Probing_with_STED_Probing",
    "RESCUE": [{{"signal_level_threshold": 3, "interpolation_threshold": 0.5,
                 "significance_level": 0.05}}],
    "line": [{{"accumulation": 2}}],
    "deactivation": [{{"z_component": 0.25, "LightSourceSettings": [{{"ID": "LightSource:4",
      "Attenuation": 0.5, "Wavelength": 775, "WavelengthUnit": "nm"}}]}}]}}]}})",
                                   vendor_namespace(Channel::Extension::kPath))));
  channel.set_acquisition_mode(Acquisition_Mode::STED);  // an OME mode needs no extension
  EXPECT_EQ(channel.node().at("AcquisitionMode"), JSON::Value("STED"));
  EXPECT_EQ(channel.find_extension()->find_values()->value("other_acquisition_mode"), nullptr);

  Detector& detector = root.provide_detectors().append();
  detector.set_type(Detector_Type::Hybrid_PMT);
  EXPECT_EQ(detector.type(), Detector_Type::Hybrid_PMT);
  detector.set_type(Detector_Type::EMCCD);
  EXPECT_EQ(detector.type(), Detector_Type::EMCCD);

  Folder& folder = root.folders().append();
  folder.set_has_bookmark(true);
  folder.set_is_overview(false);
  folder.extension().values().processing().provide().grid().provide().set_value("rows", 2);
  folder.reset_processing_grid();
  EXPECT_EQ(folder.find_extension()->find_values()->node(),
            JSON::read(R"({"has_bookmark": true, "is_overview": false, "Processing": [{}]})"));
  Light_Path& path = channel.light_path().provide();
  path.set_primary_spherical_aberration(0.1);
  path.set_primary_spherical_aberration_slope_z(-0.01);
  EXPECT_EQ(path.find_extension()->find_values()->node(),
            JSON::read(R"({"aberrations": [{"primary_spherical": 0.1,
                                            "primary_spherical_slope_z": -0.01}]})"));

  // Dyes and bands live in the first project's extension.
  Dye& dye = root.provide_dyes().append();
  dye.ID().set_actual(0);
  channel.extension().values().dye_reference().provide().assign(dye);
  EXPECT_EQ(&root.find_dye("Dye:0"), &dye);
  EXPECT_EQ(root.node().at_path("OME[0].Project[0].AnnotationRef[0].ID"),
            root.first_project()->find_extension()->node().at("ID"));

  Root back;
  back.read_XML(root.XML());
  EXPECT_EQ(back.node().at_path("OME[0].StructuredAnnotations"),
            root.node().at_path("OME[0].StructuredAnnotations"));
  EXPECT_EQ(back.images()[0].pixels().get()->channels()[0].acquisition_mode(),
            Acquisition_Mode::STED);
}

TEST(ExtensionsTest, KeywordTablesAppendTheVendorKindsToOMEs) {
  const auto ome_keywords = [](std::string_view element, std::string_view attribute) {
    const internal::Element_Type* type = internal::find_element_type(element, attribute);
    for (const auto& a : type->attributes) {
      if (a.name == attribute)
        return std::vector<std::string_view>(a.value.keywords.begin(), a.value.keywords.end());
    }
    return std::vector<std::string_view>();
  };
  const auto check = [](std::vector<std::string_view> table, std::vector<std::string_view> ome,
                        std::vector<std::string_view> vendor) {
    ome.insert(ome.end(), vendor.begin(), vendor.end());
    EXPECT_EQ(table, ome);
  };
  check(acquisition_mode_table().keywords(), ome_keywords("Channel", "AcquisitionMode"),
        {"Confocal_RESCUE", "STED_RESCUE", "Confocal_Probing", "STED_Probing",
         "STED_with_Confocal_Probing", "STED_with_STED_Probing",
         "STED_RESCUE_with_Confocal_Probing", "STED_RESCUE_with_STED_Probing",
         "STED_Probing_with_Confocal_Probing", "STED_Probing_with_STED_Probing"});
  check(detector_type_table().keywords(), ome_keywords("Detector", "Type"),
        {"Hybrid_PMT", "SPAD_Array"});
  EXPECT_EQ(acquisition_mode_table().keyword(kFirstVendorAcquisitionMode), "Confocal_RESCUE");
  EXPECT_EQ(scan_curve_table().keywords(), (std::vector<std::string_view>{"linear", "sinusoidal"}));
  EXPECT_EQ(scan_direction_table().keywords(),
            (std::vector<std::string_view>{"unidirectional", "bidirectional"}));
  for (std::string_view colour : {"white", "yellow", "magenta", "orange", "unknown"}) {
    EXPECT_TRUE(color_map_table().find(colour)) << colour;
  }
}

TEST(ExtensionsTest, BadExtensionsAreRefusedWithTheirReason) {
  const std::string channel_ns = vendor_namespace(Channel::Extension::kPath);
  const struct {
    std::string annotation;
    std::string message;
  } cases[] = {
      {xml_annotation(0, Channel::Extension::kPath, R"(<Extension xmlns="{}" bogus="1"/>)"),
       fmt::format("Unknown member 'bogus' in {}.", channel_ns)},
      {xml_annotation(0, Channel::Extension::kPath,
                      R"(<Extension xmlns="{}"><line accumulation="2.5"/></Extension>)"),
       fmt::format("Invalid integer '2.5' in {}.line.accumulation.", channel_ns)},
      {xml_annotation(
           0, Channel::Extension::kPath,
           R"(<Extension xmlns="{}"><gating delay_unit="parsec/fortnight!"/></Extension>)"),
       fmt::format("Invalid unit 'parsec/fortnight!' in {}.gating.delay_unit.", channel_ns)},
      {xml_annotation(0, Channel::Extension::kPath, R"(<Extension xmlns="{}" color_map="puce"/>)"),
       fmt::format("Invalid keyword 'puce' in {}.color_map.", channel_ns)},
      {xml_annotation(0, Channel::Extension::kPath, R"(<Extension xmlns="urn:other"/>)"),
       fmt::format("Unknown member 'Extension' in {}.", channel_ns)},
  };
  for (const auto& c : cases) {
    EXPECT_THROW_MESSAGE(read_OME_XML(channel_document("", c.annotation)), Invalid_Data, c.message);
  }
  Root root;
  root.read_XML(channel_document("", ""));
  root.annotations().append(JSON::read(fmt::format(
      R"({{"ID": "Annotation:0", "Namespace": "{}", "extension": [{{"line": 3}}]}})", channel_ns)));
  EXPECT_THROW_MESSAGE(
      root.XML(), Invalid_Data,
      fmt::format("JSON value cannot be written as OME-XML: {}.line is not a list.", channel_ns));
  // An element naming an annotation that the document lacks.
  EXPECT_THROW_MESSAGE(root.read_XML(channel_document(R"(<AnnotationRef ID="Annotation:9"/>)", "")),
                       Invalid_Argument, "Incomplete data: missing Annotation:9.");
}

TEST(ExtensionsTest, ModuloIsFoundInTheFormOtherSoftwareWrites) {
  Root root;
  root.read_XML(R"(<OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">
    <Image ID="Image:0"><Pixels ID="Pixels:0" DimensionOrder="XYZCT" Type="uint16" SizeX="1"
      SizeY="1" SizeZ="1" SizeC="1" SizeT="16"><MetadataOnly/></Pixels>
      <AnnotationRef ID="Annotation:0"/></Image>
    <StructuredAnnotations><XMLAnnotation ID="Annotation:0"
      Namespace="openmicroscopy.org/omero/dimension/modulo"><Value>
      <Modulo namespace="http://www.openmicroscopy.org/Schemas/Additions/2011-09">
        <ModuloAlongT Type="lifetime" Unit="ps" Start="0" Step="500" End="7500"/>
      </Modulo></Value></XMLAnnotation></StructuredAnnotations></OME>)");
  Image::Modulo* modulo = root.images()[0].find_modulo();
  ASSERT_NE(modulo, nullptr);
  EXPECT_EQ(modulo->find_values()->along_T().get()->node(),
            JSON::read(R"({"Type": "lifetime", "Unit": "ps", "Start": 0, "Step": 500,
                           "End": 7500})"));
  EXPECT_EQ(modulo->find_values()->along_Z().get(), nullptr);
  EXPECT_EQ(root.images()[0].find_extension(), nullptr);
}

}  // namespace
}  // namespace OME
