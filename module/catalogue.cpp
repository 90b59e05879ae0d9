// The catalogue of the module's 42 tool classes. When the module is loaded, one static
// initialiser runs the registrations below in catalogue order; each enters its class in the
// host's ClassRegistry, and the records leave again in reverse order when it is unloaded.
#include "module/placeholder.h"
#include "module/registry.h"
#include "host/graph/operator.h"
#include "tools/clip/loader.h"
#include "tools/clip/saver.h"
#include "tools/clip/time_stretcher.h"
#include "tools/color/color_tools.h"
#include "tools/matte/masks.h"
#include "tools/modifier/modifier_tools.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::module {
namespace {

// Tags of the catalogue, shortened for the table below.
Tag Category(const char* s) { return Tag(reg::Category, s); }
Tag Short(const char* s) { return Tag(reg::ShortName, s); }
Tag Describe(const char* s) { return Tag(reg::Description, s); }
Tag Display(const char* s) { return Tag(reg::DisplayName, s); }
Tag Long(const char* s) { return Tag(reg::LongName, s); }
Tag Group(uint32_t g) { return Tag(reg::Group, g); }
Tag ToolNo(uint32_t n) { return Tag(reg::ToolNumber, n); }
Tag MakesFrames() { return Tag(reg::MakesFrames, 1); }
Tag Produces(uint32_t type) { return Tag(reg::ModifierType, type); }

// Registers a class with the host's standard class start-up and clean-up.
template <uint32_t ClassId>
void Standard(ClassRecord& record, const char* name, uint32_t type, std::initializer_list<Tag> tags,
              FactoryFn factory = &PlaceholderFactory<ClassId>) {
  RegisterClass(record, name, &Operator::RegInit, &Operator::RegCleanup, factory, ClassId, type, tags);
}

// The outputs the Offset modifier offers to the inputs it drives.
const ModifierOutputRow kOffsetOutputs[] = {
    {ImageOutputId(1), vtype::Point, "Offset Position"},
    {ImageOutputId(2), vtype::Number, "Offset Angle"},
    {ImageOutputId(3), vtype::Number, "Offset Distance"},
    {0, 0, nullptr},
};

using namespace classtype;

ClassRecord polygon_mask, triangle_mask, corner_pin, keyer, time_interpolator, merge, offset, threshold, path,
    resize, colour_correct, preview_saver, filter, rectangle_mask, char_gen, motion_blur, crop, matte_control, loader,
    glow, transform, coord_space, shadow, perspective_pin, calculation, user_filter, drip, tracker, dve, dent,
    bool_img, vortex, highlight, color_gain, circle, backdrop, blur, color_space, dissolve, chroma_key, saver, deform;

// clang-format off
void RegisterCatalogue() {
  Standard<FourCC("PgMs")>(polygon_mask, "PolygonMask", Mask, {Category("Mask"), Describe("Draw a Polygon"), Display("Polygon")},
                              &tools::NewPolygonMask);
  Standard<FourCC("TrMs")>(triangle_mask, "TriangleMask", Mask, {Category("Mask"), Describe("Draw a triangle"), Display("Triangle")},
                              &tools::NewTriangleMask);
  Standard<FourCC("CPin")>(corner_pin, "CornerPin", ImageTool, {Category("Warp"), Short("CPn"), Describe("Applies rotation, scaling and mirroring effects"), Display("Corner Positioner"), Group(141), ToolNo(0x1000011)},
                              &tools::NewCornerPin);
  Standard<FourCC("BKey")>(keyer, "Keyer", ImageTool, {Category("Matte"), Short("BKy"), Describe("Creates a matte from a uniform Blue or Green Screen"), Display("Blue/Green Keyer"), Group(170), ToolNo(0x1000008)});
  Standard<FourCC("TmIn")>(time_interpolator, "TimeInterpolator", ImageTool, {Short("TmS"), Describe("Alters the flow of time within a clip"), Display("Time Stretcher"), Group(143), ToolNo(0x100001C), MakesFrames()},
                              &tools::NewTimeStretcher);
  Standard<FourCC("Mrge")>(merge, "Merge", ImageTool, {Category("Composite"), Short("Mrg"), Describe("Layers one image over another, with rotation, scaling and offset"), ToolNo(0x1000006)},
                              &tools::NewMerge);
  Standard<FourCC("Offs")>(offset, "Offset", Modifier, {Tag(reg::ModifierOutputs, kOffsetOutputs)}, &tools::NewOffset);
  Standard<FourCC("LKey")>(threshold, "Threshold", ImageTool, {Category("Matte"), Short("LKy"), Describe("Creates a matte from a luminance or color channel"), Display("Luma Keyer"), Group(150), ToolNo(0x100000A)});
  Standard<FourCC("Path")>(path, "Path", Modifier, {Produces(vtype::Point)}, &tools::NewPath);
  Standard<FourCC("Rsze")>(resize, "Resize", ImageTool, {Category("Transform"), Short("Rsz"), Describe("Resizes the frame to a new resolution"), Group(140), ToolNo(0x100001B), MakesFrames()},
                              &tools::NewResize);
  Standard<FourCC("CoCo")>(colour_correct, "ColourCorrect", ImageTool, {Category("Color"), Short("CC"), Describe("Allows changes to channel color curves"), Display("Color Corrector"), Group(222), ToolNo(0x1000014)});
  Standard<FourCC("PSav")>(preview_saver, "PreviewSaver", PreviewOutput, {Category("Output"), MakesFrames()}, &tools::NewPreviewSaver);
  Standard<FourCC("FILT")>(filter, "Filter", ImageTool, {Category("Filter"), Short("Fltr"), Describe("Applies one of a variety of Filtering effects"), Group(168), ToolNo(0x1000018)});
  Standard<FourCC("RcMs")>(rectangle_mask, "RectangleMask", Mask, {Category("Mask"), Describe("Creates a rectangular mask"), Display("Rectangle"), Long("Rectangle Mask")},
                              &tools::NewRectangleMask);
  Standard<FourCC("ChGn")>(char_gen, "CharGen", Creator, {Category("Loader/Creator"), Short("CG"), Describe("Simple Character Generator"), Display("Character Generator"), Group(148), ToolNo(0x1000004), MakesFrames()});
  Standard<FourCC("MtBl")>(motion_blur, "MotionBlur", ImageTool, {Category("Filter"), Short("MBl"), Describe("Applies Motion Blur"), Display("Motion Blur"), Group(143)});
  Standard<FourCC("Crop")>(crop, "Crop", ImageTool, {Category("Transform"), Short("Crp"), Describe("Changes size and offset, and allows trimming of a frame"), Group(140), ToolNo(0x100001A), MakesFrames()},
                              &tools::NewCrop);
  Standard<FourCC("MtCt")>(matte_control, "MatteControl", ImageTool, {Category("Matte"), Short("Mat"), Describe("Applies Blurring and Contrast to the Matte"), Display("Matte Control"), Group(170), ToolNo(0x100000B)});
  RegisterClass(loader, "Loader", &tools::LoaderRegInit, &tools::LoaderRegCleanup, &tools::NewLoader, FourCC("Load"), Creator,
                {Category("Loader/Creator"), Short("LD"), Describe("Loads frames from a clip sequence or device"), Group(147), ToolNo(0x1000001), MakesFrames()});
  Standard<FourCC("Glow")>(glow, "Glow", ImageTool, {Category("Filter"), Short("Glo"), Describe("Applies a glow blur effect"), Group(168), ToolNo(0x1000016)});
  Standard<FourCC("Tran")>(transform, "Transform", ImageTool, {Category("Transform"), Short("Xf"), Describe("Applies rotation, scaling and mirroring effects"), Group(141), ToolNo(0x100001F)},
                              &tools::NewTransform);
  Standard<FourCC("CrdS")>(coord_space, "CoordSpace", ImageTool, {Category("Warp"), Short("CdS"), Describe("Converts between Polar and Rectangular Co-ordinate spaces"), Display("Coordinate Space"), Group(143)});
  Standard<FourCC("Shdw")>(shadow, "Shadow", ImageTool, {Short("Sh"), Describe("Creates a shadow from Alpha"), Display("Shadow"), Group(140)});
  Standard<FourCC("PPin")>(perspective_pin, "PerspectivePin", ImageTool, {Category("Warp"), Short("PPn"), Describe("De-Perspective of images into a flat image"), Display("Perspective Positioner"), Group(141), ToolNo(0x1000012)},
                              &tools::NewPerspectivePin);
  Standard<FourCC("Calc")>(calculation, "Calculation", Modifier, {Produces(vtype::Number)}, &tools::NewCalculation);
  Standard<FourCC("UFLT")>(user_filter, "UserFilter", ImageTool, {Category("Filter"), Short("CFlt"), Describe("Applies a custom filtering effect"), Display("Custom Filter"), Group(168), ToolNo(0x1000019)});
  Standard<FourCC("Drip")>(drip, "Drip", ImageTool, {Category("Warp"), Short("Drip"), Describe("Applies a ripple effect, in a variety of shapes"), Group(143), ToolNo(0x100000C)});
  Standard<FourCC("Trak")>(tracker, "Tracker", ImageTool, {Short("Trk"), Describe("Tracks images and patterns"), Group(143), ToolNo(0x100001D), MakesFrames()},
                              &tools::NewTracker);
  Standard<FourCC("3DVE")>(dve, "DVE", ImageTool, {Category("Warp"), Describe("Applies 3D rotation & perspective"), Long("DVE"), Group(141), ToolNo(0x100000F)});
  Standard<FourCC("Dent")>(dent, "Dent", ImageTool, {Category("Warp"), Short("Dnt"), Describe("Dents or bulges a frame"), Group(143), ToolNo(0x100000E)});
  Standard<FourCC("Bool")>(bool_img, "BoolImg", ImageTool, {Category("Color"), Short("Bol"), Describe("Allows Boolean combinations of foreground channels with the background"), Display("Channel Booleans"), ToolNo(0x1000007)},
                              &tools::NewChannelBooleans);
  Standard<FourCC("Vort")>(vortex, "Vortex", ImageTool, {Category("Warp"), Short("Vtx"), Describe("Applies a vortex swirl effect"), Group(143), ToolNo(0x100000D)});
  Standard<FourCC("Hilt")>(highlight, "Highlight", ImageTool, {Category("Filter"), Short("HiL"), Describe("Applies highlights to hot-spots"), Group(168), ToolNo(0x1000017)});
  Standard<FourCC("Colr")>(color_gain, "ColorGain", ImageTool, {Category("Color"), Short("Clr"), Describe("Applies Gain, Gamma and Saturation"), Display("Color Gain"), Group(222), ToolNo(0x1000013)},
                              &tools::NewColorGain);
  Standard<FourCC("CrMs")>(circle, "Circle", Mask, {Category("Mask"), Describe("Creates a circular mask"), Long("Circle Mask")},
                              &tools::NewCircleMask);
  Standard<FourCC("Back")>(backdrop, "Backdrop", Creator, {Category("Loader/Creator"), Short("BG"), Describe("Creates a four-point gradient frame"), Display("Background"), Group(148), ToolNo(0x1000003), MakesFrames()});
  Standard<FourCC("Blur")>(blur, "Blur", ImageTool, {Category("Filter"), Short("Blur"), Describe("Blurs or Sharpens images"), Display("Blur / Sharpen"), Group(168), ToolNo(0x1000015)});
  Standard<FourCC("CSpc")>(color_space, "ColorSpace", ImageTool, {Category("Color"), Short("CS"), Describe("Converts the color space of an image"), Display("Color Space"), Group(222), ToolNo(0x100001E)},
                              &tools::NewColorSpace);
  Standard<FourCC("dmix")>(dissolve, "Dissolve", ImageTool, {Category("Composite"), Short("DX"), Describe("Dissolves and mixes two image together"), Display("Dissolve"), Group(144), ToolNo(0x1000005)},
                              &tools::NewDissolve);
  Standard<FourCC("CKey")>(chroma_key, "ChromaKey", ImageTool, {Category("Matte"), Short("CKy"), Describe("Creates a matte from a uniform colored background"), Display("Chroma Keyer"), Group(170), ToolNo(0x1000009)});
  Standard<FourCC("Save")>(saver, "Saver", Saver, {Category("Output"), Short("SV"), Describe("Saves frames to a clip sequence or device"), Group(146), ToolNo(0x1000002), MakesFrames()},
                              &tools::NewSaver);
  Standard<FourCC("Dfrm")>(deform, "Deform", ImageTool, {Category("Warp"), Short("Dfm"), Describe("Deform refracts one image using another"), ToolNo(0x1000010)});
}
// clang-format on

struct CatalogueInitialiser {
  CatalogueInitialiser() { RegisterCatalogue(); }
} catalogue_initialiser;

}  // namespace
}  // namespace kestrion::module
