#pragma once

// OME::Root: one OME document. It owns the JSON tree ({"OME": [{...}]}), the ID registry and,
// through its lists, every element object; all OME objects are views that live no longer
// than their root.
//
// Element objects, and with them the registration of their IDs, are created when first
// reached; resolve_references() reaches every element that carries an ID, so ID counts cover
// the whole document after it.
//
// Lookups by ID walk the relevant list in order and take the first element whose ID equals
// the given value: objectives, detectors, filters and light sources of the first instrument,
// dyes and bands of the first project. Not thread-safe.

#include <array>
#include <cstdint>
#include <exception>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>

#include "tarnio/export.h"
#include "tarnio/json/proxy.h"
#include "tarnio/ome/id_registry.h"
#include "tarnio/ome/ome_element.h"

namespace OME {

// A stored UUID that does not parse; what() is the parser's own message.
class TARNIO_EXPORT Invalid_UUID : public std::bad_variant_access {
 public:
  explicit Invalid_UUID(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

class TARNIO_EXPORT Root : public Object_of_Documents {
 public:
  using UUID_Bytes = std::array<std::uint8_t, 16>;

  Root();
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;
  ~Root() override;

  void clear();
  // Reads an OME-XML document in place of the current one and resolves its references.
  // Throws Invalid_Data as read_OME_XML, the document unchanged; Invalid_Argument "Incomplete
  // data: missing {id}." for a reference to a missing ID, the new document in place.
  void read_XML(std::string_view xml);
  // The OME-XML form of the document.
  std::string XML() const;
  void write_XML(std::ostream& out) const;
  // Replaces the document by `tree` (of the form {"OME": [{...}]}); the previous element
  // objects are destroyed.
  void assign(JSON::Value tree);

  // The OME element, or null when the document has none yet.
  OME* ome() noexcept { return ome_.get(); }
  OME& provide_ome() { return ome_.provide(); }

  // The document UUID, stored as "urn:uuid:" and the lower-case canonical form. Nothing when
  // absent; Invalid_UUID (a std::bad_variant_access) when it does not parse.
  std::optional<UUID_Bytes> UUID() const;
  // Draws a random (version 4) UUID and stores it.
  void reset_UUID();
  // The Creator text; empty when absent.
  std::string_view creator() const;
  void set_creator(std::string_view creator);

  JSON::Array_of<Image>& images() { return provide_ome().images(); }
  JSON::Array_of<Project>& projects() { return provide_ome().projects(); }
  JSON::Array_of<Dataset>& datasets() { return provide_ome().datasets(); }
  JSON::Array_of<Folder>& folders() { return provide_ome().folders(); }
  JSON::Array_of<ROI>& ROIs() { return provide_ome().ROIs(); }
  JSON::Array_of<Instrument>& instruments() { return provide_ome().instruments(); }
  JSON::Array_of<Annotation>& annotations();

  // The lists of the first instrument and the first project; null when there is none.
  JSON::Array_of<Objective>* objectives();
  JSON::Array_of<Detector>* detectors();
  JSON::Array_of<Filter>* filters();
  JSON::Array_of<Light_Source>* light_sources();
  JSON::Array_of<Dye>* dyes();
  JSON::Array_of<Band>* bands();
  // The same lists, creating the first instrument or project when missing.
  JSON::Array_of<Objective>& provide_objectives() {
    return provide_first_instrument().objectives();
  }
  JSON::Array_of<Detector>& provide_detectors() { return provide_first_instrument().detectors(); }
  JSON::Array_of<Filter>& provide_filters() { return provide_first_instrument().filters(); }
  JSON::Array_of<Light_Source>& provide_light_sources() {
    return provide_first_instrument().light_sources();
  }
  // The dyes and bands are kept in the first project's extension, created when missing.
  JSON::Array_of<Dye>& provide_dyes();
  JSON::Array_of<Band>& provide_bands();

  Folder* first_folder();
  Instrument* first_instrument();
  Project* first_project();
  Folder& provide_first_folder();
  Instrument& provide_first_instrument();
  Project& provide_first_project();

  // Throw Invalid_Argument "Unknown {kind} '{id}'." when the list is absent or holds no
  // element with the ID.
  Band& find_band(const JSON::Value& id);
  Detector& find_detector(const JSON::Value& id);
  Dye& find_dye(const JSON::Value& id);
  Filter& find_filter(const JSON::Value& id);
  Light_Source& find_light_source(const JSON::Value& id);
  Objective& find_objective(const JSON::Value& id);
  const Band& find_band(const JSON::Value& id) const;
  const Detector& find_detector(const JSON::Value& id) const;
  const Dye& find_dye(const JSON::Value& id) const;
  const Filter& find_filter(const JSON::Value& id) const;
  const Light_Source& find_light_source(const JSON::Value& id) const;
  const Objective& find_objective(const JSON::Value& id) const;

  // Resolves every reference in the document; throws Invalid_Argument "Incomplete data:
  // missing {id}." for a reference to an ID that no element carries.
  void resolve_references() override;
  // update_1() then update_2(): derived values brought into line.
  void update();
  void update_1();
  void update_2();

 private:
  ID_Registry ids_;
  JSON::Value tree_;
  JSON::One_of<OME> ome_{*this, "OME"};
};

}  // namespace OME
