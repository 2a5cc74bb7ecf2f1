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
  auto& shapes = back.ROIs()[0].shape_union().get()->shapes();
  EXPECT_NE(dynamic_cast<Rectangle&>(shapes[0]).find_extension(), nullptr);
}

}  // namespace
}  // namespace OME
