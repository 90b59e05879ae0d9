// Tag lists: (32-bit tag, value) pairs that carry attributes of registry records, inputs,
// images and objects. The top bits of a tag give the kind of its value: 0x18... a string,
// 0x20... a double, anything else a 32-bit integer or four-character code (or, for a few
// host tags, a pointer).
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace kestrion {

// A four-character code: the first character is the lowest byte ("Colr" is C, o, l, r).
constexpr uint32_t FourCC(const char (&s)[5]) {
  return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
         uint32_t(uint8_t(s[3])) << 24;
}

// A four-character code with the high bit set on its first character, as the ids of common
// inputs are ("Cent" gives 0xC3, 'e', 'n', 't').
constexpr uint32_t HighFourCC(const char (&s)[5]) { return FourCC(s) | 0x80u; }

// The n-th plain image input (0x01706EC9, 0x02706EC9, ...) and output (0x017475CF, ...).
constexpr uint32_t ImageInputId(uint32_t n) { return n << 24 | 0x00706EC9u; }
constexpr uint32_t ImageOutputId(uint32_t n) { return n << 24 | 0x007475CFu; }

// The four characters of a code, printable ones as they are and others as \xNN escapes.
std::string FourCCText(uint32_t code);
// Parses four characters (with \xNN escapes) or a hexadecimal "0x..." word; false if neither.
bool ParseFourCC(const std::string& text, uint32_t& code);

enum class TagKind : uint8_t { Integer, String, Double, Pointer };

// The kind that a tag's top bits give; integer tags may also carry host pointers.
constexpr TagKind KindOfTag(uint32_t tag) {
  if ((tag & 0xF8000000u) == 0x18000000u) return TagKind::String;
  if ((tag & 0xF0000000u) == 0x20000000u) return TagKind::Double;
  return TagKind::Integer;
}

struct Tag {
  uint32_t id = 0;
  TagKind kind = TagKind::Integer;
  union {
    uint32_t integer;
    const char* string;
    double real;
    const void* pointer;
  };

  // Numbers follow the kind of the tag: an integer given to a double tag is stored as a double.
  Tag(uint32_t tag, int value) : Tag(tag, int64_t(value)) {}
  Tag(uint32_t tag, uint32_t value) : Tag(tag, int64_t(value)) {}
  Tag(uint32_t tag, int64_t value) : id(tag), kind(KindOfTag(tag)) {
    if (kind == TagKind::Double) {
      real = double(value);
    } else {
      kind = TagKind::Integer;
      integer = uint32_t(value);
    }
  }
  Tag(uint32_t tag, double value) : id(tag), kind(TagKind::Double), real(value) {}
  Tag(uint32_t tag, const char* value) : id(tag), kind(TagKind::String), string(value) {}
  template <class T>
  Tag(uint32_t tag, T* value) : id(tag), kind(TagKind::Pointer), pointer((const void*)value) {}
  template <class R, class... A>
  Tag(uint32_t tag, R (*fn)(A...)) : id(tag), kind(TagKind::Pointer), pointer((const void*)fn) {}
};

// An ordered list of tags; a tag may repeat (drop-down entries), look-ups find the first.
class TagList {
 public:
  TagList() = default;
  TagList(std::initializer_list<Tag> tags) : tags_(tags) {}

  void Add(const Tag& tag) { tags_.push_back(tag); }
  // Replaces the first tag with the same id, or appends.
  void Set(const Tag& tag);
  void Remove(uint32_t id);

  const Tag* Find(uint32_t id) const;
  bool Has(uint32_t id) const { return Find(id) != nullptr; }
  uint32_t GetInt(uint32_t id, uint32_t fallback = 0) const;
  double GetDouble(uint32_t id, double fallback = 0.0) const;
  const char* GetString(uint32_t id, const char* fallback = nullptr) const;
  const void* GetPointer(uint32_t id, const void* fallback = nullptr) const;
  // Every value of a repeated string tag, in order.
  std::vector<const char*> GetStrings(uint32_t id) const;

  const std::vector<Tag>& All() const { return tags_; }
  size_t Size() const { return tags_.size(); }
  auto begin() const { return tags_.begin(); }
  auto end() const { return tags_.end(); }

 private:
  std::vector<Tag> tags_;
};

// Named tags. Registration records (Registry):
namespace reg {
constexpr uint32_t Factory = 0x10000000;
constexpr uint32_t ClassInit = 0x10000001;
constexpr uint32_t ClassCleanup = 0x10000002;
constexpr uint32_t ClassType = 0x10000003;
constexpr uint32_t ClassId = 0x10000005;
constexpr uint32_t DisplayName = 0x10000006;
constexpr uint32_t ToolNumber = 0x10000007;
constexpr uint32_t ShortName = 0x1000000b;
constexpr uint32_t Description = 0x1000000c;
constexpr uint32_t LongName = 0x1000000d;
constexpr uint32_t MakesFrames = 0x1000000e;
constexpr uint32_t Category = 0x1000000f;
constexpr uint32_t ModifierType = 0x10000010;
constexpr uint32_t Group = 0x10000011;
constexpr uint32_t ModifierOutputs = 0x10000020;
}  // namespace reg

// Class types (reg::ClassType).
namespace classtype {
constexpr uint32_t PreviewOutput = 1;
constexpr uint32_t ImageTool = 3;
constexpr uint32_t Modifier = 5;
constexpr uint32_t Creator = 11;
constexpr uint32_t Saver = 19;
constexpr uint32_t Mask = 33;
}  // namespace classtype

// Inputs and outputs (Operator::AddInput / AddOutput).
namespace in {
constexpr uint32_t Control = 0x10030006;
constexpr uint32_t PreviewControl = 0x10030007;
constexpr uint32_t Lowest = 0x20030000;
constexpr uint32_t Highest = 0x20030001;
constexpr uint32_t SliderLow = 0x20030002;
constexpr uint32_t SliderHigh = 0x20030003;
constexpr uint32_t Default = 0x20030004;
constexpr uint32_t DefaultX = 0x20030005;
constexpr uint32_t DefaultY = 0x20030006;
constexpr uint32_t Steps = 0x10000005;
constexpr uint32_t WholeNumber = 0x10030010;
constexpr uint32_t ListEntry = 0x18000064;
constexpr uint32_t GroupNumber = 0x10030009;
constexpr uint32_t GroupIndex = 0x1003000a;
constexpr uint32_t CompoundLabel = 0x10000001;
constexpr uint32_t Required = 0x10030003;  // 0: an image input that may stay unconnected
constexpr uint32_t CurveKind = 0x10030012;
constexpr uint32_t TiedInput1 = 0x100000c8;
constexpr uint32_t TiedInput2 = 0x100000c9;
// Presentation attributes the host passes through untouched.
constexpr uint32_t Presentation0D = 0x1003000d;
constexpr uint32_t Presentation01 = 0x10030001;
constexpr uint32_t Presentation05 = 0x10030005;
constexpr uint32_t Presentation11 = 0x10030011;
constexpr uint32_t Presentation06 = 0x10000006;
constexpr uint32_t Presentation64 = 0x10000064;
constexpr uint32_t Presentation65 = 0x10000065;
constexpr uint32_t Presentation00 = 0x10000000;
constexpr uint32_t Presentation0B = 0x1003000b;
constexpr uint32_t Presentation0C = 0x1003000c;
constexpr uint32_t SliderPresentation = 0x20000006;
}  // namespace in

// Panel control kinds (in::Control) and preview controls (in::PreviewControl).
namespace control {
constexpr uint32_t Slider = FourCC("SliC");
constexpr uint32_t DropDown = FourCC("ComC");
constexpr uint32_t CheckBox = FourCC("ChBC");
constexpr uint32_t Button = FourCC("BtnC");
constexpr uint32_t Offset = FourCC("OffC");
constexpr uint32_t Dial = FourCC("ScrC");
constexpr uint32_t Range = FourCC("RngC");
constexpr uint32_t Colour = FourCC("ColC");
constexpr uint32_t Font = FourCC("FonC");
constexpr uint32_t TextEdit = FourCC("CEDT");
constexpr uint32_t FilterMatrix = FourCC("CFLT");
constexpr uint32_t CrossHair = FourCC("XHrC");
constexpr uint32_t PointHandle = FourCC("PntC");
constexpr uint32_t AngleHandle = FourCC("AngC");
constexpr uint32_t CircleHandle = FourCC("CirC");
constexpr uint32_t RectangleHandle = FourCC("RecC");
constexpr uint32_t BezierCurve = FourCC("BzSp");
}  // namespace control

// Value type codes of inputs and outputs.
namespace vtype {
constexpr uint32_t Image = FourCC("Imag");
constexpr uint32_t Number = FourCC("Numb");
constexpr uint32_t Point = FourCC("Poin");
constexpr uint32_t Text = FourCC("Text");
constexpr uint32_t Mask = FourCC("Mask");
constexpr uint32_t Clip = FourCC("Clip");
constexpr uint32_t LookUpTable = FourCC("LUT ");
}  // namespace vtype

// Frame attributes of an image.
namespace frameattr {
constexpr uint32_t FullWidth = 0x10000000;
constexpr uint32_t FullHeight = 0x10000001;
constexpr uint32_t Field = 0x10000002;
}  // namespace frameattr

}  // namespace kestrion
