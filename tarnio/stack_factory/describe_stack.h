#pragma once

// The OME description of the stacks of a TBF file, and stack infos filled from it.
//
// describe_stack appends to an OME document an Image whose Pixels describe one stack. A TBF
// file with the metadata flag calls it for each stack committed whose image the document does
// not hold yet (a file copied with its description, compacted or recovered, has them):
// - IDs: the image of stack n (its index in the file) has the ID "Image:stack-n", its pixels
//   "Pixels:stack-n" and its channels "Channel:stack-n:c". That ID is how a reader finds the
//   stack of an image and the image of a stack (stack_images); the Pixels hold MetadataOnly,
//   since the data lies in the file's stack, not in the document.
// - Name and Description: the stack's, when it has them.
// - Dimensions: when the labels of the axes are X and Y (axes 0 and 1) followed by distinct
//   ones of Z, C and T (any case), each axis is what its label says; otherwise the axes are X,
//   Y, Z, C and T in that order, and the axes behind the fifth are folded into T (they are the
//   slowest, so the data order stays that of the DimensionOrder). Letters without an axis get
//   size 1 and follow in the order Z, C, T in the DimensionOrder.
// - Type: the element type's OME pixel type; a stack of another element type (64-bit
//   integers, logical, RGB, complex integers, ...) or without elements gets no image.
// - PhysicalSizeX/Y/Z and TimeIncrement: the length of the axis over its size to 15
//   significant digits, in the axis's unit, where that unit is one of OME's for the attribute (µm,
//   nm, s, ms, ...); nothing for a dimensionless axis or a folded T.
// - One Channel per index of the C axis, named by the axis's column label when it has one.
// - AcquisitionDate: the stack's timestamp in UTC, when it has one.
//
// fill_type, fill_description and fill_acquisition_date go the other way: a stack info from
// an image, as the image describes it, so that a described stack comes back with the same
// type, shape, name, description, labels, pixel sizes, units, channel labels and timestamp.
//
// The JSON members are the attributes of OME-XML ("SizeX", "DimensionOrder", ...). Not
// thread-safe: the document belongs to one thread at a time.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tarnio/arrays/stack_info_imp.h"
#include "tarnio/arrays/stack_info_interface.h"
#include "tarnio/export.h"
#include "tarnio/ome/root.h"

namespace Tarn {

// "Image:stack-{index}".
TARNIO_EXPORT std::string stack_image_ID(std::size_t index);

// Appends the image of stack `index` (see above) and returns it; null when the stack cannot
// be described.
TARNIO_EXPORT OME::Image* describe_stack(OME::Root& root, const arrays::StackInfoInterface& info,
                                         std::size_t index);

// The index of the stack that `image` describes, from its ID; nothing for another image.
TARNIO_EXPORT std::optional<std::size_t> described_stack(const OME::Image& image);
// The image of each stack 0 .. number_of_stacks - 1, null where the document has none.
TARNIO_EXPORT std::vector<OME::Image*> stack_images(OME::Root& root, std::size_t number_of_stacks);

// A stack info of the type and shape of the image's pixels: X, Y, then Z, C and T in the
// DimensionOrder, with the trailing axes of size 1 dropped (X and Y stay). Throws
// OME::Invalid_Data "Image '{id}' has no pixels description." without Pixels, "Unsupported
// pixel type '{type}'." for a pixel type without element type ("bit"), "Invalid
// DimensionOrder in the pixels of image '{id}'." and "Invalid Size{letter} in the pixels of
// image '{id}'." for a missing or malformed one.
TARNIO_EXPORT arrays::StackInfoImp fill_type(OME::Image& image);
// Sets the name, description, axis labels, lengths and units and the channel labels of `info`,
// an info as fill_type makes it, from the image. Axes beyond the info's rank are skipped.
TARNIO_EXPORT void fill_description(arrays::StackInfoInterface& info, OME::Image& image);
// Sets the timestamp from AcquisitionDate; returns false, the info unchanged, when the image
// has none. Throws OME::Invalid_Data "Invalid AcquisitionDate '{text}'." for a date that does
// not parse.
TARNIO_EXPORT bool fill_acquisition_date(arrays::StackInfoInterface& info, const OME::Image& image);

}  // namespace Tarn
