// The member tables of the typed annotations, in the order in which their classes declare the
// members.

#include <string>
#include <vector>

#include "tarnio/ome/element_classes.h"
#include "tarnio/ome/extensions/channel_extension.h"
#include "tarnio/ome/extensions/enumerations.h"
#include "tarnio/ome/extensions/image_extensions.h"
#include "tarnio/ome/extensions/instrument_extensions.h"
#include "tarnio/ome/extensions/project_extensions.h"
#include "tarnio/ome/internal/typed_annotations.h"
#include "tarnio/ome/vendor.h"

namespace OME::internal {
namespace {

using enum Member_Kind;

// The keywords of a table from `first` on.
template <typename E>
std::vector<std::string_view> keywords_from(const JSON::Enum_Table<E>& table, E first) {
  std::vector<std::string_view> all = table.keywords();
  const auto start = static_cast<std::ptrdiff_t>(static_cast<std::size_t>(first));
  return {all.begin() + start, all.end()};
}

struct Tables {
  std::vector<std::string_view> color_maps = color_map_table().keywords();
  std::vector<std::string_view> vendor_modes =
      keywords_from(acquisition_mode_table(), kFirstVendorAcquisitionMode);
  std::vector<std::string_view> vendor_detectors =
      keywords_from(detector_type_table(), kFirstVendorDetectorType);
  std::vector<std::string_view> image_types = image_type_table().keywords();
  std::vector<std::string_view> scan_curves = scan_curve_table().keywords();
  std::vector<std::string_view> scan_directions = scan_direction_table().keywords();
  std::vector<std::string_view> modulo_types{"angle",    "phase",  "tile",
                                             "lifetime", "lambda", "other"};

  std::vector<Member_Type> reference_members{{"ID", string}};
  Record_Type reference{reference_members};

  // Channel::Extension
  std::vector<Member_Type> settings_members{
      {"ID", string}, {"Attenuation", number}, {"Wavelength", number}, {"WavelengthUnit", unit}};
  Record_Type settings{settings_members};
  std::vector<Member_Type> other_settings_members{{"power", number}, {"power_unit", unit}};
  Record_Type other_settings{other_settings_members};
  std::vector<Member_Type> excitation_members{
      {"other_light_source_settings", records, &other_settings}};
  Record_Type excitation{excitation_members};
  std::vector<Member_Type> deactivation_members{
      {"wavelength", number},
      {"wavelength_unit", unit},
      {"z_component", number},
      {"LightSourceSettings", records, &settings},
      {"other_light_source_settings", records, &other_settings}};
  Record_Type deactivation{deactivation_members};
  std::vector<Member_Type> gating_members{
      {"delay", number}, {"delay_unit", unit}, {"width", number}, {"width_unit", unit}};
  Record_Type gating{gating_members};
  std::vector<Member_Type> line_members{{"accumulation", integer}};
  Record_Type line{line_members};
  std::vector<Member_Type> rescue_members{{"significance_level", number},
                                          {"signal_level_threshold", number},
                                          {"interpolation_threshold", number}};
  Record_Type rescue{rescue_members};
  std::vector<Member_Type> detector_element_members{
      {"offset_x", number}, {"offset_x_unit", unit}, {"offset_y", number}, {"offset_y_unit", unit}};
  Record_Type detector_element{detector_element_members};
  std::vector<Member_Type> detector_settings_members{
      {"detector_elements", records, &detector_element}};
  Record_Type detector_settings{detector_settings_members};
  std::vector<Member_Type> channel_members{
      {"other_acquisition_mode", keyword, nullptr, vendor_modes},
      {"dye_reference", records, &reference},
      {"band_reference", records, &reference},
      {"color_map", keyword, nullptr, color_maps},
      {"overlay_color_map", keyword, nullptr, color_maps},
      {"excitation", records, &excitation},
      {"deactivation", records, &deactivation},
      {"gating", records, &gating},
      {"line", records, &line},
      {"RESCUE", records, &rescue},
      {"other_detector_settings", records, &detector_settings}};
  Record_Type channel{channel_members};

  std::vector<Member_Type> detector_members{{"other_type", keyword, nullptr, vendor_detectors},
                                            {"dead_time", number},
                                            {"dead_time_unit", unit}};
  Record_Type detector{detector_members};

  std::vector<Member_Type> grid_members{{"columns", integer},  {"rows", integer},
                                        {"spacing_x", number}, {"spacing_x_unit", unit},
                                        {"spacing_y", number}, {"spacing_y_unit", unit}};
  Record_Type grid{grid_members};
  std::vector<Member_Type> processing_members{{"Grid", records, &grid}};
  Record_Type processing{processing_members};
  std::vector<Member_Type> folder_members{{"creation_date", string},
                                          {"has_bookmark", boolean},
                                          {"is_overview", boolean},
                                          {"Processing", records, &processing}};
  Record_Type folder{folder_members};

  std::vector<Member_Type> image_members{{"type", keyword, nullptr, image_types},
                                         {"acquisition_end_date", string},
                                         {"angle", number},
                                         {"angle_unit", unit},
                                         {"frame_step", number},
                                         {"line_step", number},
                                         {"pixel_step", number},
                                         {"scan_curve", keyword, nullptr, scan_curves},
                                         {"scan_direction", keyword, nullptr, scan_directions},
                                         {"derivation_description", string},
                                         {"source_image", records, &reference},
                                         {"parameter_images", records, &reference}};
  Record_Type image{image_members};

  std::vector<Member_Type> pinhole_members{{"reference_wavelength", number},
                                           {"reference_wavelength_unit", unit}};
  Record_Type pinhole{pinhole_members};
  std::vector<Member_Type> instrument_members{{"pinhole", records, &pinhole}};
  Record_Type instrument{instrument_members};

  std::vector<Member_Type> filter_settings_members{{"filter_reference", records, &reference},
                                                   {"cut_in", number},
                                                   {"cut_in_unit", unit},
                                                   {"cut_out", number},
                                                   {"cut_out_unit", unit}};
  Record_Type filter_settings{filter_settings_members};
  std::vector<Member_Type> aberrations_members{{"primary_spherical", number},
                                               {"primary_spherical_slope_z", number}};
  Record_Type aberrations{aberrations_members};
  std::vector<Member_Type> light_path_members{
      {"excitation_filter_settings", records, &filter_settings},
      {"emission_filter_settings", records, &filter_settings},
      {"aberrations", records, &aberrations}};
  Record_Type light_path{light_path_members};

  std::vector<Member_Type> objective_members{{"other_immersion", string}};
  Record_Type objective{objective_members};

  std::vector<Member_Type> dye_members{{"ID", string},
                                       {"name", string},
                                       {"color_map", keyword, nullptr, color_maps},
                                       {"overlay_color_map", keyword, nullptr, color_maps},
                                       {"excitation_wavelength", number},
                                       {"excitation_wavelength_unit", unit},
                                       {"emission_wavelength", number},
                                       {"emission_wavelength_unit", unit}};
  Record_Type dye{dye_members};
  std::vector<Member_Type> band_members{{"ID", string},
                                        {"name", string},
                                        {"color_map", keyword, nullptr, color_maps},
                                        {"overlay_color_map", keyword, nullptr, color_maps},
                                        {"lower_wavelength", number},
                                        {"lower_wavelength_unit", unit},
                                        {"upper_wavelength", number},
                                        {"upper_wavelength_unit", unit}};
  Record_Type band{band_members};
  std::vector<Member_Type> project_members{{"dye", records, &dye}, {"band", records, &band}};
  Record_Type project{project_members};

  std::vector<Member_Type> rectangle_members{{"position_x_unit", unit}, {"position_y_unit", unit},
                                             {"position_z", number},    {"position_z_unit", unit},
                                             {"size_x_unit", unit},     {"size_y_unit", unit},
                                             {"size_z", number},        {"size_z_unit", unit}};
  Record_Type rectangle{rectangle_members};

  std::vector<Member_Type> along_members{{"Type", keyword, nullptr, modulo_types},
                                         {"TypeDescription", string},
                                         {"Unit", string},
                                         {"Start", number},
                                         {"Step", number},
                                         {"End", number},
                                         {"Label", texts}};
  Record_Type along{along_members};
  std::vector<Member_Type> modulo_members{{"ModuloAlongZ", records, &along},
                                          {"ModuloAlongC", records, &along},
                                          {"ModuloAlongT", records, &along}};
  Record_Type modulo{modulo_members};

  std::vector<Typed_Annotation> annotations{
      extension(Channel::Extension::kPath, channel),
      extension(Detector::Extension::kPath, detector),
      extension(Folder::Extension::kPath, folder),
      extension(Image::Extension::kPath, image),
      extension(Instrument::Extension::kPath, instrument),
      extension(Light_Path::Extension::kPath, light_path),
      extension(Objective::Extension::kPath, objective),
      extension(Project::Extension::kPath, project),
      extension(Rectangle::Extension::kPath, rectangle),
      older(Channel::Extension::kLinesPath, "Lines", line),
      older(Channel::Extension::kGatingPath, "Gating", gating),
      older(Channel::Extension::kDeactivationPath, "Deactivation", deactivation),
      {std::string(Image::Modulo::kNamespace), "Modulo", "Modulo",
       std::string(Image::Modulo::kElementNamespace), true, &modulo}};

  static Typed_Annotation extension(std::string_view path, const Record_Type& record) {
    const std::string ns = vendor_namespace(path);
    return {ns, "extension", "Extension", ns, false, &record};
  }
  static Typed_Annotation older(std::string_view path, std::string_view element,
                                const Record_Type& record) {
    const std::string ns = vendor_namespace(path);
    return {ns, "Value", element, ns, false, &record};
  }
};

}  // namespace

const Typed_Annotation* find_typed_annotation(std::string_view annotation_namespace) {
  static const Tables tables;
  for (const Typed_Annotation& annotation : tables.annotations) {
    if (annotation.annotation_namespace == annotation_namespace) return &annotation;
  }
  return nullptr;
}

}  // namespace OME::internal
