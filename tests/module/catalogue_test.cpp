// The tool catalogue as published to users: every class record the tool module enters into the
// host's class registry, checked against a table written out by hand. Saved flows find their
// tools by class id and menus are built from these records, so every value here is part of
// the module's outside face and must not drift.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "host/graph/registry.h"
#include "host/base/tags.h"

namespace kestrion {
namespace {

constexpr const char* no = nullptr;  // the tag is not passed

// One catalogue entry. Numbers of 0, a false flag and an empty output code mean the tag is not
// passed; `rows` marks a modifier that passes a table of outputs.
struct Row {
  const char* name;
  char id[5];
  uint32_t type;
  const char* category;
  const char* short_name;
  const char* display;
  const char* long_name;
  uint32_t group;
  uint32_t tool;
  bool frames;
  char output[5];
  bool rows;
  const char* description;
};

// clang-format off
constexpr Row kCatalogue[] = {
  // name              id      type category          short   display                   long              group tool       frames output rows   description
  {"PolygonMask",      "PgMs", 33,  "Mask",           no,     "Polygon",                no,               0,    0,         false, "",    false, "Draw a Polygon"},
  {"TriangleMask",     "TrMs", 33,  "Mask",           no,     "Triangle",               no,               0,    0,         false, "",    false, "Draw a triangle"},
  {"CornerPin",        "CPin", 3,   "Warp",           "CPn",  "Corner Positioner",      no,               141,  0x1000011, false, "",    false, "Applies rotation, scaling and mirroring effects"},
  {"Keyer",            "BKey", 3,   "Matte",          "BKy",  "Blue/Green Keyer",       no,               170,  0x1000008, false, "",    false, "Creates a matte from a uniform Blue or Green Screen"},
  {"TimeInterpolator", "TmIn", 3,   no,               "TmS",  "Time Stretcher",         no,               143,  0x100001C, true,  "",    false, "Alters the flow of time within a clip"},
  {"Merge",            "Mrge", 3,   "Composite",      "Mrg",  no,                       no,               0,    0x1000006, false, "",    false, "Layers one image over another, with rotation, scaling and offset"},
  {"Offset",           "Offs", 5,   no,               no,     no,                       no,               0,    0,         false, "",    true,  no},
  {"Threshold",        "LKey", 3,   "Matte",          "LKy",  "Luma Keyer",             no,               150,  0x100000A, false, "",    false, "Creates a matte from a luminance or color channel"},
  {"Path",             "Path", 5,   no,               no,     no,                       no,               0,    0,         false, "Poin", false, no},
  {"Resize",           "Rsze", 3,   "Transform",      "Rsz",  no,                       no,               140,  0x100001B, true,  "",    false, "Resizes the frame to a new resolution"},
  {"ColourCorrect",    "CoCo", 3,   "Color",          "CC",   "Color Corrector",        no,               222,  0x1000014, false, "",    false, "Allows changes to channel color curves"},
  {"PreviewSaver",     "PSav", 1,   "Output",         no,     no,                       no,               0,    0,         true,  "",    false, no},
  {"Filter",           "FILT", 3,   "Filter",         "Fltr", no,                       no,               168,  0x1000018, false, "",    false, "Applies one of a variety of Filtering effects"},
  {"RectangleMask",    "RcMs", 33,  "Mask",           no,     "Rectangle",              "Rectangle Mask", 0,    0,         false, "",    false, "Creates a rectangular mask"},
  {"CharGen",          "ChGn", 11,  "Loader/Creator", "CG",   "Character Generator",    no,               148,  0x1000004, true,  "",    false, "Simple Character Generator"},
  {"MotionBlur",       "MtBl", 3,   "Filter",         "MBl",  "Motion Blur",            no,               143,  0,         false, "",    false, "Applies Motion Blur"},
  {"Crop",             "Crop", 3,   "Transform",      "Crp",  no,                       no,               140,  0x100001A, true,  "",    false, "Changes size and offset, and allows trimming of a frame"},
  {"MatteControl",     "MtCt", 3,   "Matte",          "Mat",  "Matte Control",          no,               170,  0x100000B, false, "",    false, "Applies Blurring and Contrast to the Matte"},
  {"Loader",           "Load", 11,  "Loader/Creator", "LD",   no,                       no,               147,  0x1000001, true,  "",    false, "Loads frames from a clip sequence or device"},
  {"Glow",             "Glow", 3,   "Filter",         "Glo",  no,                       no,               168,  0x1000016, false, "",    false, "Applies a glow blur effect"},
  {"Transform",        "Tran", 3,   "Transform",      "Xf",   no,                       no,               141,  0x100001F, false, "",    false, "Applies rotation, scaling and mirroring effects"},
  {"CoordSpace",       "CrdS", 3,   "Warp",           "CdS",  "Coordinate Space",       no,               143,  0,         false, "",    false, "Converts between Polar and Rectangular Co-ordinate spaces"},
  {"Shadow",           "Shdw", 3,   no,               "Sh",   "Shadow",                 no,               140,  0,         false, "",    false, "Creates a shadow from Alpha"},
  {"PerspectivePin",   "PPin", 3,   "Warp",           "PPn",  "Perspective Positioner", no,               141,  0x1000012, false, "",    false, "De-Perspective of images into a flat image"},
  {"Calculation",      "Calc", 5,   no,               no,     no,                       no,               0,    0,         false, "Numb", false, no},
  {"UserFilter",       "UFLT", 3,   "Filter",         "CFlt", "Custom Filter",          no,               168,  0x1000019, false, "",    false, "Applies a custom filtering effect"},
  {"Drip",             "Drip", 3,   "Warp",           "Drip", no,                       no,               143,  0x100000C, false, "",    false, "Applies a ripple effect, in a variety of shapes"},
  {"Tracker",          "Trak", 3,   no,               "Trk",  no,                       no,               143,  0x100001D, true,  "",    false, "Tracks images and patterns"},
  {"DVE",              "3DVE", 3,   "Warp",           no,     no,                       "DVE",            141,  0x100000F, false, "",    false, "Applies 3D rotation & perspective"},
  {"Dent",             "Dent", 3,   "Warp",           "Dnt",  no,                       no,               143,  0x100000E, false, "",    false, "Dents or bulges a frame"},
  {"BoolImg",          "Bool", 3,   "Color",          "Bol",  "Channel Booleans",       no,               0,    0x1000007, false, "",    false, "Allows Boolean combinations of foreground channels with the background"},
  {"Vortex",           "Vort", 3,   "Warp",           "Vtx",  no,                       no,               143,  0x100000D, false, "",    false, "Applies a vortex swirl effect"},
  {"Highlight",        "Hilt", 3,   "Filter",         "HiL",  no,                       no,               168,  0x1000017, false, "",    false, "Applies highlights to hot-spots"},
  {"ColorGain",        "Colr", 3,   "Color",          "Clr",  "Color Gain",             no,               222,  0x1000013, false, "",    false, "Applies Gain, Gamma and Saturation"},
  {"Circle",           "CrMs", 33,  "Mask",           no,     no,                       "Circle Mask",    0,    0,         false, "",    false, "Creates a circular mask"},
  {"Backdrop",         "Back", 11,  "Loader/Creator", "BG",   "Background",             no,               148,  0x1000003, true,  "",    false, "Creates a four-point gradient frame"},
  {"Blur",             "Blur", 3,   "Filter",         "Blur", "Blur / Sharpen",         no,               168,  0x1000015, false, "",    false, "Blurs or Sharpens images"},
  {"ColorSpace",       "CSpc", 3,   "Color",          "CS",   "Color Space",            no,               222,  0x100001E, false, "",    false, "Converts the color space of an image"},
  {"Dissolve",         "dmix", 3,   "Composite",      "DX",   "Dissolve",               no,               144,  0x1000005, false, "",    false, "Dissolves and mixes two image together"},
  {"ChromaKey",        "CKey", 3,   "Matte",          "CKy",  "Chroma Keyer",           no,               170,  0x1000009, false, "",    false, "Creates a matte from a uniform colored background"},
  {"Saver",            "Save", 19,  "Output",         "SV",   no,                       no,               146,  0x1000002, true,  "",    false, "Saves frames to a clip sequence or device"},
  {"Deform",           "Dfrm", 3,   "Warp",           "Dfm",  no,                       no,               0,    0x1000010, false, "",    false, "Deform refracts one image using another"},
};
// clang-format on
static_assert(std::size(kCatalogue) == 42);

std::string Hex(uint32_t v) {
  std::ostringstream s;
  s << "0x" << std::hex << std::uppercase << v;
  return s.str();
}

// The value of a pointer tag, or null when the record lacks it or it holds something else.
const void* PointerTag(const Registry& r, uint32_t id) {
  const Tag* t = r.Tags().Find(id);
  return t && t->kind == TagKind::Pointer ? t->pointer : nullptr;
}

// A tag as text: its id and its value, a number in hex, a string in quotes, or whether a
// pointer is set.
std::string Shown(uint32_t id, const std::string& value) { return Hex(id) + " = " + value; }
std::string Quoted(const char* s) { return s ? '"' + std::string(s) + '"' : "null string"; }

std::string Shown(const Tag& t) {
  switch (t.kind) {
    case TagKind::Integer: return Shown(t.id, Hex(t.integer));
    case TagKind::String: return Shown(t.id, Quoted(t.string));
    case TagKind::Pointer: return Shown(t.id, t.pointer ? "pointer" : "null pointer");
    default: return Shown(t.id, "another kind of value");
  }
}

// The tags a record must carry, the hooks, class id and type first.
std::vector<std::string> WantedTags(const Row& row) {
  std::vector<std::string> w = {Shown(reg::ClassInit, "pointer"), Shown(reg::ClassCleanup, "pointer"),
                                Shown(reg::Factory, "pointer"), Shown(reg::ClassId, Hex(FourCC(row.id))),
                                Shown(reg::ClassType, Hex(row.type))};
  auto text = [&](uint32_t id, const char* s) {
    if (s) w.push_back(Shown(id, Quoted(s)));
  };
  auto number = [&](uint32_t id, uint32_t v) {
    if (v) w.push_back(Shown(id, Hex(v)));
  };
  text(reg::Category, row.category);
  text(reg::ShortName, row.short_name);
  text(reg::DisplayName, row.display);
  text(reg::LongName, row.long_name);
  text(reg::Description, row.description);
  number(reg::Group, row.group);
  number(reg::ToolNumber, row.tool);
  number(reg::MakesFrames, row.frames ? 1 : 0);
  number(reg::ModifierType, FourCC(row.output));
  if (row.rows) w.push_back(Shown(reg::ModifierOutputs, "pointer"));
  return w;
}

class CatalogueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(ClassRegistry, nullptr);
    records_ = ClassRegistry->Records();
    ASSERT_EQ(records_.size(), std::size(kCatalogue));
  }

  const Registry* Named(const char* name) const {
    for (const Registry* r : records_)
      if (r->Name() == name) return r;
    ADD_FAILURE() << "no record named " << name;
    return nullptr;
  }

  std::vector<Registry*> records_;
};

TEST_F(CatalogueTest, RecordsAreEnteredInCatalogueOrder) {
  for (size_t i = 0; i < records_.size(); ++i)
    EXPECT_EQ(records_[i]->Name(), kCatalogue[i].name) << "at position " << i;
}

TEST_F(CatalogueTest, EachRecordCarriesExactlyItsCatalogueTags) {
  constexpr size_t kLeading = 5;  // the hooks, class id and type lead the list in this order
  for (const Row& row : kCatalogue) {
    SCOPED_TRACE(row.name);
    const Registry* r = Named(row.name);
    if (!r) continue;
    std::vector<std::string> wanted = WantedTags(row), got;
    for (const Tag& t : r->Tags().All()) got.push_back(Shown(t));
    ASSERT_GE(got.size(), kLeading);
    EXPECT_EQ(std::vector(got.begin(), got.begin() + kLeading), std::vector(wanted.begin(), wanted.begin() + kLeading));
    // The rest in any order, each once.
    std::sort(got.begin(), got.end());
    std::sort(wanted.begin(), wanted.end());
    EXPECT_EQ(got, wanted);
  }
}

// Every tool but the Loader hands class set-up and clean-up to the host's shared operator
// hooks; the Loader has its own pair. Each class has a factory of its own. (That every hook is
// set is the tag test's.)
TEST_F(CatalogueTest, ClassHooksAreSharedExceptByTheLoader) {
  const Registry* first = records_.front();
  ASSERT_NE(first->Name(), "Loader");
  const void* shared_init = PointerTag(*first, reg::ClassInit);
  const void* shared_cleanup = PointerTag(*first, reg::ClassCleanup);
  std::map<const void*, std::string> factories;
  for (const Registry* r : records_) {
    SCOPED_TRACE(r->Name());
    const void* init = PointerTag(*r, reg::ClassInit);
    const void* cleanup = PointerTag(*r, reg::ClassCleanup);
    const void* factory = PointerTag(*r, reg::Factory);
    if (r->Name() == "Loader") {
      EXPECT_NE(init, shared_init);
      EXPECT_NE(cleanup, shared_cleanup);
    } else {
      EXPECT_EQ(init, shared_init);
      EXPECT_EQ(cleanup, shared_cleanup);
    }
    if (!factory) continue;
    auto [it, added] = factories.emplace(factory, r->Name());
    EXPECT_TRUE(added) << "factory shared with " << it->second;
  }
}

TEST_F(CatalogueTest, ToolNumbersRunWithoutGapsAndClassIdsAreUnique) {
  constexpr uint32_t kFirst = 0x1000001, kLast = 0x100001F;
  std::map<uint32_t, std::string> numbers, ids;
  for (const Registry* r : records_) {
    SCOPED_TRACE(r->Name());
    auto [id, fresh_id] = ids.emplace(r->ClassId(), r->Name());
    EXPECT_TRUE(fresh_id) << "class id " << Hex(r->ClassId()) << " also used by " << id->second;
    const Tag* t = r->Tags().Find(reg::ToolNumber);
    if (!t) continue;
    EXPECT_GE(t->integer, kFirst);
    EXPECT_LE(t->integer, kLast);
    auto [num, fresh_num] = numbers.emplace(t->integer, r->Name());
    EXPECT_TRUE(fresh_num) << "tool number " << Hex(t->integer) << " also used by " << num->second;
  }
  EXPECT_EQ(numbers.size(), kLast - kFirst + 1);
  for (uint32_t n = kFirst; n <= kLast; ++n)
    EXPECT_TRUE(numbers.count(n)) << "no tool carries number " << Hex(n);
}

TEST_F(CatalogueTest, OffsetOffersPositionAngleAndDistance) {
  const Registry* offset = Named("Offset");
  ASSERT_NE(offset, nullptr);
  const auto* rows = static_cast<const ModifierOutputRow*>(PointerTag(*offset, reg::ModifierOutputs));
  ASSERT_NE(rows, nullptr);

  // The table ends with an empty row.
  const ModifierOutputRow kOutputs[] = {{0x017475CF, FourCC("Poin"), "Offset Position"},
                                        {0x027475CF, FourCC("Numb"), "Offset Angle"},
                                        {0x037475CF, FourCC("Numb"), "Offset Distance"},
                                        {0, 0, nullptr}};
  for (size_t i = 0; i < std::size(kOutputs); ++i) {
    SCOPED_TRACE(testing::Message() << "row " << i);
    EXPECT_EQ(Hex(rows[i].id), Hex(kOutputs[i].id));
    EXPECT_EQ(Hex(rows[i].type), Hex(kOutputs[i].type));
    EXPECT_STREQ(rows[i].name, kOutputs[i].name);
  }
}

}  // namespace
}  // namespace kestrion
