#include "tarnio/ome/root.h"

#include <gtest/gtest.h>

#include <variant>

#include "tarnio/json/read_write.h"
#include "tarnio/testing/expect_throw_message.h"

namespace OME {
namespace {

// A root filled from JSON text in the model's tree form, its references resolved.
void fill(Root& root, std::string_view json) {
  root.assign(JSON::read(json));
  root.resolve_references();
}

TEST(RootTest, IDsAreParsedAndCountedPerType) {
  Root root;
  fill(root, R"({"OME": [{"Image": [{"ID": "Image:7"}, {"ID": "Image:abc"}, {"ID": "Channel:3"},
                                    {"ID": "Image:0"}, {"ID": "Image:0"}, {"ID": 5}]}]})");
  auto& images = root.images();
  EXPECT_EQ(images[0].ID().string(), "7");
  EXPECT_EQ(images[0].ID().actual(), JSON::Value(7));
  EXPECT_EQ(images[0].ID().count(), 1u);
  EXPECT_EQ(images[1].ID().actual(), JSON::Value("abc"));
  EXPECT_EQ(images[1].ID().count(), 0u);  // kept, not registered
  EXPECT_EQ(images[2].ID().string(), "");
  EXPECT_EQ(images[5].ID().string(), "");
  EXPECT_EQ(images[3].ID().count(), 2u);
  EXPECT_EQ(images[4].ID().count(), 2u);

  images[4].ID().set_actual(7);  // unsubscribe, change, subscribe
  EXPECT_EQ(root.node().at_path("OME[0].Image[4].ID"), JSON::Value("Image:7"));
  EXPECT_EQ(images[3].ID().count(), 1u);
  EXPECT_EQ(images[0].ID().count(), 2u);
  images.erase(4);  // destroying the element object unregisters its ID
  EXPECT_EQ(images[0].ID().count(), 1u);
  images[0].reset_ID();
  EXPECT_EQ(images[0].ID().count(), 0u);
  EXPECT_FALSE(images[0].has_member("ID"));
  images[1].ID().set("Image:12", false);
  EXPECT_EQ(images[1].ID().count(), 0u);
}

TEST(RootTest, ImageResetIDReachesPixelsAndChannels) {
  Root root;
  fill(root, R"({"OME": [{"Image": [{"ID": "Image:0", "Pixels": [{"ID": "Pixels:0",
                 "Channel": [{"ID": "Channel:0"}, {"ID": "Channel:1"}]}]}]}]})");
  root.images()[0].reset_ID();
  EXPECT_EQ(root.node(),
            JSON::read(R"({"OME": [{"Image": [{"Pixels": [{"Channel": [{}, {}]}]}]}]})"));
}

TEST(RootTest, ReferencesResolveInOrderCreateTheirTargetAndReportMissingIDs) {
  Root root;
  fill(root, R"({"OME": [{"Image": [{"ID": "Image:1"}, {"ID": "Image:2"}, {"ID": "Image:2"}],
                          "Dataset": [{"ID": "Dataset:0", "ImageRef": [{"ID": "Image:2"}, {}]}]}]})");
  auto& refs = root.datasets()[0].image_references();
  EXPECT_EQ(refs[0].referent(), &root.images()[1]);  // the first of the equal IDs
  EXPECT_EQ(refs[1].referent(), nullptr);            // no ID, no mirror: nothing to resolve

  Image& created = *refs[1];  // dereferencing an empty reference creates its target
  EXPECT_EQ(root.images().size(), 4u);
  EXPECT_EQ(&created, &root.images()[3]);
  EXPECT_EQ(*refs[1].ID(), JSON::Value("Image:3"));

  Image& first = root.images()[0];
  refs[1].assign(first);
  EXPECT_EQ(root.node().at_path("OME[0].Dataset[0].ImageRef[1].ID"), JSON::Value("Image:1"));
  refs[1].reset();
  EXPECT_EQ(refs[1].referent(), nullptr);
  EXPECT_EQ(refs[1].ID(), nullptr);

  root.assign(JSON::read(R"({"OME": [{"Image": [{"ID": "Image:1"}],
                               "Dataset": [{"ImageRef": [{"ID": "Image:9"}]}]}]})"));
  const JSON::Value before = root.node();
  EXPECT_THROW_MESSAGE(root.resolve_references(), Invalid_Argument,
                       "Incomplete data: missing Image:9.");
  EXPECT_EQ(root.node(), before);
}

TEST(RootTest, CyclesOfReferencesEndAndResolvingIsIndexed) {
  Root root;
  fill(root, R"({"OME": [{"Folder": [{"ID": "Folder:0", "FolderRef": [{"ID": "Folder:1"}]},
                                     {"ID": "Folder:1", "FolderRef": [{"ID": "Folder:0"}]}]}]})");
  root.resolve_references();
  root.resolve_references();  // cached referents resolve again without looping
  EXPECT_EQ(root.folders()[0].folder_references()[0].referent(), &root.folders()[1]);
  EXPECT_EQ(root.folders()[1].folder_references()[0].referent(), root.first_folder());
}

TEST(RootTest, MirroredReferencesBindToTheirUntypedEntries) {
  Root root;  // not resolved as a whole: the image's missing Annotation:7 would be refused
  root.assign(JSON::read(R"({"OME": [{"StructuredAnnotations": [{"Annotation": [
                   {"ID": "Annotation:0"}, {"ID": "Annotation:1"}]}],
                 "Image": [{"ID": "Image:0", "AnnotationRef": [{"ID": "Annotation:7"},
                   {"ID": "Annotation:1"}, {"ID": "Annotation:0"}]},
                   {"ID": "Image:1", "AnnotationRef": [{"ID": "Annotation:0"}]}]}]})"));
  Image& image = root.images()[0];
  Abstract_References untyped(image);
  Reference<Annotation> shared(untyped);
  shared.resolve_references();  // Annotation:7 does not exist: the next entry is taken
  EXPECT_EQ(shared.referent(), &root.annotations()[1]);
  EXPECT_EQ(*shared.ID(), JSON::Value("Annotation:1"));

  shared.reset();  // held only by this entry and the annotation: the entry goes
  ASSERT_EQ(untyped.size(), 2u);
  EXPECT_EQ(shared.ID(), nullptr);
  EXPECT_EQ(*untyped[1].ID(), JSON::Value("Annotation:0"));
  Reference<Annotation> own(untyped);
  own.resolve_references();
  own.reset();  // Annotation:0 is also held by Image:1's entry: the entry stays
  EXPECT_EQ(untyped.size(), 2u);

  own.assign(root.annotations()[1]);  // an unbound mirror appends its entry
  EXPECT_EQ(root.node().at_path("OME[0].Image[0].AnnotationRef[2].ID"),
            JSON::Value("Annotation:1"));
  EXPECT_EQ(own.referent(), &root.annotations()[1]);
}

TEST(RootTest, LookupsTakeTheFirstMatchAndFailWithoutChangingTheDocument) {
  Root root;
  EXPECT_EQ(root.objectives(), nullptr);
  EXPECT_EQ(root.dyes(), nullptr);
  const JSON::Value empty = root.node();
  const Root& constant = root;
  EXPECT_THROW_MESSAGE(constant.find_dye("Dye:3"), Invalid_Argument, "Unknown dye 'Dye:3'.");
  EXPECT_THROW_MESSAGE(root.find_band(4), Invalid_Argument, "Unknown band '4'.");
  EXPECT_EQ(root.node(), empty);

  root.provide_detectors().append().ID().set_actual(0);
  root.provide_detectors().append().ID().set_actual(0);
  root.provide_objectives().append().ID().set_actual(0);
  EXPECT_EQ(root.instruments().size(), 1u);
  EXPECT_EQ(&root.find_detector("Detector:0"), &(*root.detectors())[0]);
  EXPECT_EQ(&constant.find_objective("Objective:0"), &root.provide_objectives()[0]);
  EXPECT_THROW_MESSAGE(root.find_objective("Detector:0"), Invalid_Argument,
                       "Unknown objective 'Detector:0'.");
  EXPECT_THROW_MESSAGE(root.find_filter("Filter:0"), Invalid_Argument,
                       "Unknown filter 'Filter:0'.");
  EXPECT_THROW_MESSAGE(root.find_light_source("LightSource:0"), Invalid_Argument,
                       "Unknown light source 'LightSource:0'.");
  root.provide_dyes().append().ID().set_actual(3);
  EXPECT_EQ(&root.find_dye("Dye:3"), &(*root.dyes())[0]);
}

TEST(RootTest, UUIDsAreStoredCanonicallyAndBadOnesRaiseTheParserMessage) {
  Root root;
  EXPECT_FALSE(root.UUID());
  root.reset_UUID();
  const std::string first(root.ome()->member("UUID").get_string());
  root.reset_UUID();
  const std::string second(root.ome()->member("UUID").get_string());
  EXPECT_NE(first, second);
  for (const std::string& text : {first, second}) {
    ASSERT_EQ(text.size(), 9u + 36u);
    EXPECT_TRUE(text.starts_with("urn:uuid:"));
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef-", 9), std::string::npos);
  }
  const auto bytes = root.UUID();
  ASSERT_TRUE(bytes);
  EXPECT_EQ((*bytes)[6] >> 4, 4);  // version 4

  root.ome()->set_member("UUID", "urn:uuid:0123-not-a-uuid");
  EXPECT_THROW(root.UUID(), std::bad_variant_access);
  try {
    root.UUID();
  } catch (const std::bad_variant_access& error) {
    EXPECT_STRNE(error.what(), std::bad_variant_access().what());
  }
  root.set_creator("tarn");
  EXPECT_EQ(root.creator(), "tarn");
}

TEST(RootTest, UpdateBringsChannelsAndPlanesInLineWithThePixelSizes) {
  Root root;
  fill(root, R"({"OME": [{"Image": [{"ID": "Image:0", "Pixels": [{"ID": "Pixels:0",
                 "DimensionOrder": "XYCZT", "SizeZ": 2, "SizeC": 3, "SizeT": 1,
                 "Channel": [{"ID": "Channel:0"}], "Plane": [{"TheZ": 0, "TheC": 0, "TheT": 0}]}]},
                 {"ID": "Image:1", "Pixels": [{"SizeC": 1, "Channel": [{}, {}]}]}]}]})");
  root.update();
  const JSON::Value& pixels = root.node().at_path("OME[0].Image[0].Pixels[0]");
  EXPECT_EQ(pixels.at("Channel"), JSON::read(R"([{"ID": "Channel:0"}, {"ID": "Channel:1"},
                                                 {"ID": "Channel:2"}])"));
  ASSERT_EQ(pixels.at("Plane").size(), 6u);
  EXPECT_EQ(pixels.at("Plane")[4], JSON::read(R"({"TheZ": 1, "TheC": 1, "TheT": 0})"));
  EXPECT_EQ(root.node().at_path("OME[0].Image[1].Pixels[0].Channel").size(), 1u);
  const JSON::Value settled = root.node();
  root.update();
  EXPECT_EQ(root.node(), settled);
}

}  // namespace
}  // namespace OME
