#pragma once

// The vendor domain of TarnIo's own OME annotations. Every extension annotation is an
// XMLAnnotation whose Namespace is this domain followed by a path ("/ome/channel/extension"),
// and the XML in its Value is one element of that same namespace. The domain is written in URL
// form, so that every such namespace is a valid xsd:anyURI and a valid XML namespace name.
//
// Immutable; thread-safe.

#include <string>
#include <string_view>

namespace OME {

inline constexpr std::string_view kVendorDomain = "https://tarnio.org";

// The namespace of the extension at `path`: the vendor domain followed by the path.
inline std::string vendor_namespace(std::string_view path) {
  return std::string(kVendorDomain).append(path);
}

}  // namespace OME
