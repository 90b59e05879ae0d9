// Masks and paths in text flows: a Path's nodes and a Polygon's shapes in their readable forms,
// the same after a trip through a document; malformed node data refused with the tool named;
// and a mask fed to a Saver written as one grey channel, its values unchanged.
#include <gtest/gtest.h>

#include <OpenImageIO/imagebuf.h>

#include <string>
#include <vector>

#include "host/base/archive.h"
#include "host/document/flow_file.h"
#include "host/document/node_lists.h"
#include "tests/host/image/image_fixtures.h"
#include "tests/tools/matte/mask_fixture.h"

namespace kestrion::test {
namespace {

std::unique_ptr<CPipelineDoc> LoadFlow(const std::string& tools, HostError* err, const std::string& folder = ".") {
  return LoadTextFlow(R"({"kestrion": 1, "range": [0, 10], "preferences": {"video": {"width": 16, "height": 12}},
                          "tools": {)" + tools + "}}",
                      folder, err);
}

const char* const kMaskFlow = R"(
  "Polygon1": {"class": "PolygonMask",
               "data": {"shapes": [{"nodes": [[-0.25, -0.25, 2], [-0.25, -0.25], [0.25, -0.25], [0.25, -0.25],
                                              [0.25, -0.25], [0.25, 0.25], [0.25, 0.25], [0.25, 0.25], [0.25, 0.25]]},
                                   {"time": 4.5, "nodes": [[0, 0], [0, 0], [0.5, 0], [0.5, 0], [0.5, 0], [0.5, 0.5],
                                                           [0.5, 0.5], [0.5, 0.5], [0, 0]]}]}},
  "Circle1": {"class": "Circle", "inputs": {"Center": {"modifier": {"class": "Path", "name": "Path1",
      "inputs": {"Displacement": {"keys": [[0, 0], [5, 0.5, 8], [10, 1]]}},
      "data": {"nodes": [[0.1, 0.2], [0.3, 0.2, 4], [0.5, 0.6], [0.7, 0.6]], "aspect": 0.5}}}}})";

NodeLists ListsOf(const CPipelineDoc& doc, const char* tool) {
  return dynamic_cast<NodeListTool*>(doc.FindTool(tool))->GetNodeLists();
}

TEST(MaskFlow, NodeListsAreReadableAndSurviveDocuments) {
  test_tools::SavedPrefs prefs;
  HostError err;
  auto doc = LoadFlow(kMaskFlow, &err);
  ASSERT_TRUE(doc) << err.message;
  const NodeLists polygon = ListsOf(*doc, "Polygon1"), path = ListsOf(*doc, "Path1");
  ASSERT_EQ(polygon.shapes.size(), 2u);
  EXPECT_FALSE(polygon.shapes[0].timed);
  EXPECT_EQ(polygon.shapes[1].time, 4.5);
  EXPECT_EQ(polygon.shapes[0].nodes[0].flags, 2);
  EXPECT_EQ(path.aspect, 0.5f);
  EXPECT_EQ(path.shapes[0].nodes[1].flags, 4);
  EXPECT_EQ(path.shapes[0].nodes[3].displacement, 1.0f) << "displacements are worked out on load";

  const std::string text = SaveTextFlow(*doc);
  for (const char* readable : {"\"shapes\"", "\"time\": 4.5", "\"nodes\"", "\"aspect\": 0.5"})
    EXPECT_NE(text.find(readable), std::string::npos) << readable;
  auto again = LoadTextFlow(text, ".", &err);
  ASSERT_TRUE(again) << err.message;
  CArchive document;
  again->Save(document);
  CArchive in(document.Bytes());
  auto loaded = CPipelineDoc::Load(in, &err);
  ASSERT_TRUE(loaded) << err.message;
  // A Path's record holds its nodes only: from a document it has the aspect factor of a new one.
  NodeLists path_from_document = path;
  path_from_document.aspect = 0.75f;
  EXPECT_EQ(ListsOf(*again, "Path1"), path);
  EXPECT_EQ(ListsOf(*loaded, "Path1"), path_from_document);
  for (const CPipelineDoc* d : {again.get(), loaded.get()}) {
    EXPECT_EQ(ListsOf(*d, "Polygon1"), polygon);
    EXPECT_EQ(d->FindTool("Path1")->FindInput(0, "Displacement")->Animation()->Keys()[1].flags, 8u);
  }
}

TEST(MaskFlow, MalformedNodeDataIsRefused) {
  test_tools::SavedPrefs prefs;
  const std::string square = R"([[0, 0], [0, 0], [1, 0]])";
  const struct {
    const char* what;
    std::string tools;
    const char* message;
  } cases[] = {
      {"a path of 2 nodes", R"("P": {"class": "Path", "data": {"nodes": [[0, 0], [1, 1]]}})",
       "tool \"P\": \"data\".\"nodes\" holds 2 nodes; a path has 3k - 2"},
      {"an empty path", R"("P": {"class": "Path", "data": {"nodes": []}})", "holds 0 nodes"},
      {"a shape of 4 nodes", R"("G": {"class": "PolygonMask", "data": {"shapes": [{"nodes": [[0, 0], [0, 0], [1, 0], [1, 0]]}]}})",
       "tool \"G\": \"data\", shape 0, \"nodes\" holds 4 nodes; a closed shape has 3k"},
      {"shapes of different sizes", R"("G": {"class": "PolygonMask", "data": {"shapes": [{"nodes": )" + square +
                                        R"(}, {"nodes": [[0, 0], [0, 0], [1, 0], [1, 0], [1, 0], [1, 1]]}]}})",
       "shape 1 has 6 nodes and shape 0 has 3"},
      {"a node of one number", R"("P": {"class": "Path", "data": {"nodes": [[0]]}})", "node 0 is not [x, y] or [x, y, flags]"},
      {"a node of four numbers", R"("P": {"class": "Path", "data": {"nodes": [[0, 0, 0, 0]]}})", "is not [x, y] or [x, y, flags]"},
      {"a node beyond a float", R"("P": {"class": "Path", "data": {"nodes": [[1e39, 0]]}})", "is not a finite point"},
      {"flags of 300", R"("P": {"class": "Path", "data": {"nodes": [[0, 0, 300]]}})", "flags are a whole number from 0 to 255"},
      {"an aspect of 0", R"("P": {"class": "Path", "data": {"nodes": [[0, 0]], "aspect": 0}})", "\"aspect\" must be a number above 0"},
      {"an unknown key", R"("G": {"class": "PolygonMask", "data": {"shapes": [{"nodes": )" + square + R"(, "when": 3}]}})",
       "unknown key \"when\""},
      {"a time that is text", R"("G": {"class": "PolygonMask", "data": {"shapes": [{"nodes": )" + square + R"(, "time": "3"}]}})",
       "\"time\" must be a number of frames"},
      {"no shapes", R"("G": {"class": "PolygonMask", "data": {"shapes": []}})", "one or more \"shapes\""},
      {"bytes for a path", R"("P": {"class": "Path", "data": "00000000"})", "tool \"P\": \"data\" must be {\"nodes\""},
      {"nodes for a circle", R"("C": {"class": "Circle", "data": {"nodes": [[0, 0]]}})", "hexadecimal byte pairs"},
      {"a modifier's bad nodes",
       R"("C": {"class": "Circle", "inputs": {"Center": {"modifier": {"class": "Path", "data": {"nodes": [[0, 0], [1, 1]]}}}}})",
       "tool \"C\", input \"Center\", modifier \"Path1\": \"data\".\"nodes\" holds 2 nodes"},
  };
  for (const auto& c : cases) {
    HostError err;
    EXPECT_FALSE(LoadFlow(c.tools, &err)) << c.what;
    EXPECT_NE(err.message.find(c.message), std::string::npos) << c.what << ": " << err.message;
  }
}

// A Polygon (and a Rectangle, through the link's "Tool" form) fed to a Saver: one grey channel
// whose bytes are the mask's, in each format.
TEST(MaskFlow, ASaverWritesAMaskAsOneGreyChannel) {
  test_tools::SavedPrefs prefs;
  test_tools::TempFolder dir;
  for (const char* ext : {"png", "tif", "exr"}) {
    SCOPED_TRACE(ext);
    HostError err;
    auto doc = LoadFlow(std::string(kMaskFlow) + R"(, "Saver1": {"class": "Saver", "inputs": {"Filename": "mask.#.)" + ext +
                            R"(", "Image": "Polygon1"}})",
                        &err, dir.path().string());
    ASSERT_TRUE(doc) << err.message;
    Operator* saver = doc->FindTool("Saver1");
    Ref<Parameter> written = doc->Render(saver->Outputs()[0].get(), 2, 0, &err);
    ASSERT_TRUE(written) << err.message;
    const auto* mask = dynamic_cast<const Image*>(written.get());
    ASSERT_EQ(mask->Depth(), 8);
    OIIO::ImageBuf file(dir / (std::string("mask.2.") + ext));
    ASSERT_TRUE(file.read());
    EXPECT_EQ(file.nchannels(), 1);
    std::vector<uint8_t> bytes(16 * 12);
    ASSERT_TRUE(file.get_pixels(OIIO::ROI::All(), OIIO::TypeDesc::UINT8, bytes.data()));
    EXPECT_EQ(bytes, MaskValues(*mask));
    EXPECT_GT(std::count(bytes.begin(), bytes.end(), 255), 0);
    EXPECT_GT(std::count_if(bytes.begin(), bytes.end(), [](uint8_t v) { return v > 0 && v < 255; }), 0);
  }
}

}  // namespace
}  // namespace kestrion::test
