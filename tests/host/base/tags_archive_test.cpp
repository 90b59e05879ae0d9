// Four-character codes, tag lists and the archive byte stream: the values that saved flows and
// the tool catalogue are written in, so every byte here is part of the file format.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "host/base/archive.h"
#include "host/graph/operator.h"
#include "host/base/tags.h"
#include "tests/host/test_tools.h"

namespace kestrion {
namespace {

std::string Hex(uint32_t v) {
  char b[16];
  std::snprintf(b, sizeof b, "0x%08X", v);
  return b;
}

// --- four-character codes ---

TEST(FourCC, CodesOfTheCatalogueHaveTheirPublishedValues) {
  const struct {
    const char* what;
    uint32_t code;
    uint32_t expected;
  } cases[] = {
      {"Colr: first character in the lowest byte", FourCC("Colr"), 0x726C6F43},
      {"dmix keeps its lower case", FourCC("dmix"), 0x78696D64},
      {"RdCh with the high bit on R", HighFourCC("RdCh"), 0x684364D2},
      {"Cent with the high bit on C", HighFourCC("Cent"), 0x746E65C3},
      {"first image input", ImageInputId(1), 0x01706EC9},
      {"second image input", ImageInputId(2), 0x02706EC9},
      {"first image output", ImageOutputId(1), 0x017475CF},
      {"third image output", ImageOutputId(3), 0x037475CF},
      {"end of record", kEndOfRecord, 0x43646E45},
  };
  for (const auto& c : cases) EXPECT_EQ(Hex(c.code), Hex(c.expected)) << c.what;
}

// Printable characters stand for themselves; anything else (and the backslash, which opens an
// escape) is written \xNN. Hexadecimal words and escapes are read too, but never written.
TEST(FourCC, TextEscapesWhatIsNotPrintableAndParsesBack) {
  const struct {
    const char* text;
    uint32_t code;
    bool written;  // FourCCText gives this text for the code
  } cases[] = {
      {"Colr", FourCC("Colr"), true},           {"LUT ", FourCC("LUT "), true},
      {"\\xC9np\\x01", ImageInputId(1), true},  {"\\xD2dCh", HighFourCC("RdCh"), true},
      {"\\x00\\x00\\x00\\x00", 0, true},        {"a\\x5Cb~", FourCC("a\\b~"), true},
      {"A: \\x7F", 0x7F203A41, true},           {"\\x30x12", FourCC("0x12"), true},
      {"\\x30XzZ", FourCC("0XzZ"), true},       {"0x684364D2", 0x684364D2, false},
      {"0X017475cf", 0x017475CF, false},        {"0x1", 0x1, false},
      {"0xFFFFFFFF", 0xFFFFFFFF, false},        {"\\x43olr", FourCC("Colr"), false},
      {"Co\\x6cr", FourCC("Colr"), false},      {"\\xc9np\\x01", ImageInputId(1), false},
      // Four characters that only begin like a hexadecimal word are four characters.
      {"0xG1", FourCC("0xG1"), false},          {"0x-1", FourCC("0x-1"), false},
      {"0x+5", FourCC("0x+5"), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    if (c.written) {
      EXPECT_EQ(FourCCText(c.code), c.text);
    }
    uint32_t parsed = 0xDEADBEEF;
    ASSERT_TRUE(ParseFourCC(c.text, parsed));
    EXPECT_EQ(Hex(parsed), Hex(c.code));
  }
}

TEST(FourCC, RejectsWhatIsNeitherFourCharactersNorAHexWord) {
  for (const char* text : {"", "abc", "abcde", "\\x41bc", "\\x41\\x42\\x43\\x44\\x45", "0x", "0x123456789",
                           "0x 12", "0x0x12", "0x12345G", "0x-12345"}) {
    uint32_t parsed = 0x5A5A5A5A;
    EXPECT_FALSE(ParseFourCC(text, parsed)) << '"' << text << '"';
    EXPECT_EQ(parsed, 0x5A5A5A5Au) << "changed on failure: " << text;
  }
}

// Every code comes back from its text, whatever its bytes, including codes whose text would
// begin like a hexadecimal word.
TEST(FourCC, EveryCodeSurvivesItsText) {
  std::vector<uint32_t> codes = {FourCC("0x12"), FourCC("0X1F"), FourCC("0xZZ"), FourCC("0\\x1"),
                                 FourCC("\\x41"), 0x5C5C5C5C, 0xFFFFFFFF};
  std::mt19937 rng(20240611);
  for (int i = 0; i < 2000; ++i) codes.push_back(rng());
  // Mostly printable codes, where the escapes and the hexadecimal form meet.
  const char alphabet[] = "0xX\\19aFZ ";
  for (int i = 0; i < 2000; ++i) {
    uint32_t c = 0;
    for (int k = 0; k < 4; ++k) c |= uint32_t(uint8_t(alphabet[rng() % (sizeof alphabet - 1)])) << (8 * k);
    codes.push_back(c);
  }
  for (uint32_t code : codes) {
    const std::string text = FourCCText(code);
    uint32_t parsed = 0;
    ASSERT_TRUE(ParseFourCC(text, parsed)) << Hex(code) << " as " << text;
    ASSERT_EQ(Hex(parsed), Hex(code)) << "via " << text;
  }
}

// --- tags ---

TEST(Tag, KindFollowsTheTopBitsOfTheTag) {
  const struct {
    uint32_t id;
    TagKind kind;
  } cases[] = {
      {in::ListEntry, TagKind::String},    {0x18000000, TagKind::String},     {0x1FFFFFFF, TagKind::String},
      {reg::Description, TagKind::Integer}, {in::Control, TagKind::Integer},  {0x17FFFFFF, TagKind::Integer},
      {in::Default, TagKind::Double},       {in::SliderPresentation, TagKind::Double},
      {0x2FFFFFFF, TagKind::Double},        {0x30000000, TagKind::Integer},   {0x00000001, TagKind::Integer},
  };
  for (const auto& c : cases) EXPECT_EQ(int(KindOfTag(c.id)), int(c.kind)) << Hex(c.id);
}

TEST(Tag, NumbersTakeTheKindOfTheirTag) {
  const struct {
    Tag tag;
    TagKind kind;
    double value;
  } cases[] = {
      {Tag(in::Default, 2), TagKind::Double, 2.0},
      {Tag(in::Lowest, -3), TagKind::Double, -3.0},
      {Tag(in::SliderPresentation, 7u), TagKind::Double, 7.0},
      {Tag(in::Highest, 0.25), TagKind::Double, 0.25},
      {Tag(in::Control, control::DropDown), TagKind::Integer, double(FourCC("ComC"))},
      {Tag(in::Steps, 3600), TagKind::Integer, 3600.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Hex(c.tag.id));
    ASSERT_EQ(int(c.tag.kind), int(c.kind));
    EXPECT_EQ(c.kind == TagKind::Double ? c.tag.real : double(c.tag.integer), c.value);
  }
  const Tag text(in::ListEntry, "Cubic");
  EXPECT_EQ(text.kind, TagKind::String);
  EXPECT_STREQ(text.string, "Cubic");
  static int anchor;
  const Tag pointer(in::TiedInput1, &anchor);
  EXPECT_EQ(pointer.kind, TagKind::Pointer);
  EXPECT_EQ(pointer.pointer, &anchor);
}

TEST(TagList, ReadsNumbersAcrossKinds) {
  const TagList tags{Tag(in::Default, 2), Tag(in::Steps, 11), Tag(in::Lowest, -1.75), Tag(in::Control, -2)};
  EXPECT_EQ(tags.GetDouble(in::Default), 2.0);
  EXPECT_EQ(tags.GetInt(in::Default), 2u);
  EXPECT_EQ(tags.GetDouble(in::Steps), 11.0);
  EXPECT_EQ(tags.GetDouble(in::Lowest), -1.75);
  EXPECT_EQ(tags.GetDouble(in::Control), -2.0) << "integer tags hold signed values";
  EXPECT_EQ(tags.GetDouble(in::Highest, 9.5), 9.5) << "fallback for a missing tag";
  EXPECT_EQ(tags.GetString(in::Default), nullptr) << "a number is not a string";
  EXPECT_EQ(tags.GetPointer(in::Steps), nullptr) << "an integer is not a pointer";
}

TEST(TagList, RepeatedEntriesKeepTheirOrderAndLookUpsFindTheFirst) {
  TagList tags{Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Box"), Tag(in::Default, 1.0),
               Tag(in::ListEntry, "Gaussian"), Tag(in::ListEntry, "Box"), Tag(in::ListEntry, "Soften")};
  const std::vector<const char*> entries = tags.GetStrings(in::ListEntry);
  ASSERT_EQ(entries.size(), 4u);
  const char* expected[] = {"Box", "Gaussian", "Box", "Soften"};
  for (size_t i = 0; i < entries.size(); ++i) EXPECT_STREQ(entries[i], expected[i]) << "entry " << i;
  EXPECT_STREQ(tags.GetString(in::ListEntry), "Box");

  tags.Set(Tag(in::ListEntry, "Sharpen"));
  EXPECT_STREQ(tags.GetStrings(in::ListEntry)[0], "Sharpen") << "Set replaces the first";
  EXPECT_EQ(tags.GetStrings(in::ListEntry).size(), 4u);
  tags.Set(Tag(in::Highest, 4.0));
  EXPECT_EQ(tags.All().back().id, in::Highest) << "Set appends a new tag";
  tags.Remove(in::ListEntry);
  EXPECT_TRUE(tags.GetStrings(in::ListEntry).empty()) << "Remove takes every repeat";
  EXPECT_TRUE(tags.Has(in::Default));
}

// --- the archive ---

TEST(CArchive, WritesLittleEndianWordsFloatsDoublesAndStrings) {
  const struct {
    const char* what;
    void (*write)(CArchive&);
    std::vector<uint8_t> bytes;
  } cases[] = {
      {"word", [](CArchive& a) { a.WriteWord(0x11223344); }, {0x44, 0x33, 0x22, 0x11}},
      {"four-character code", [](CArchive& a) { a.WriteWord(FourCC("EndC")); }, {'E', 'n', 'd', 'C'}},
      {"negative int", [](CArchive& a) { a.WriteInt(-2); }, {0xFE, 0xFF, 0xFF, 0xFF}},
      {"float", [](CArchive& a) { a.WriteFloat(1.5f); }, {0x00, 0x00, 0xC0, 0x3F}},
      {"double", [](CArchive& a) { a.WriteDouble(-2.0); }, {0, 0, 0, 0, 0, 0, 0x00, 0xC0}},
      {"double, low word first", [](CArchive& a) { a.WriteDouble(1.0 + 0x1p-52); }, {1, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
      {"string: count, bytes, no terminator", [](CArchive& a) { a.WriteString("ab"); }, {2, 0, 0, 0, 'a', 'b'}},
      {"empty string", [](CArchive& a) { a.WriteString(""); }, {0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    CArchive ar;
    EXPECT_TRUE(ar.IsStoring());
    c.write(ar);
    EXPECT_EQ(ar.Bytes(), c.bytes) << c.what;
  }
}

TEST(CArchive, ValuesComeBackBitForBit) {
  const double doubles[] = {0.0, -0.0, 1.0 / 3.0, -1e300, 5e-324, std::numeric_limits<double>::infinity(),
                            std::numeric_limits<double>::quiet_NaN()};
  const float floats[] = {0.0f, -0.0f, 0.1f, 3.4e38f, 1e-45f, -std::numeric_limits<float>::infinity()};
  const uint32_t words[] = {0, 1, 0x80000000, 0xFFFFFFFF, FourCC("KFlw")};
  const std::string strings[] = {"", "Blur1", std::string("nul\0inside", 10), std::string(1000, 'x'), "\xC9\xFF"};

  CArchive out;
  for (double d : doubles) out.WriteDouble(d);
  for (float f : floats) out.WriteFloat(f);
  for (uint32_t w : words) out.WriteWord(w);
  out.WriteInt(-123456);
  for (const auto& s : strings) out.WriteString(s);  // the last one ends exactly at the end

  CArchive in(out.Bytes());
  EXPECT_TRUE(in.IsLoading());
  for (double d : doubles) {
    const double r = in.ReadDouble();
    EXPECT_EQ(std::memcmp(&r, &d, sizeof d), 0) << d;
  }
  for (float f : floats) {
    const float r = in.ReadFloat();
    EXPECT_EQ(std::memcmp(&r, &f, sizeof f), 0) << f;
  }
  for (uint32_t w : words) EXPECT_EQ(in.ReadWord(), w);
  EXPECT_EQ(in.ReadInt(), -123456);
  for (const auto& s : strings) EXPECT_EQ(in.ReadString(), s);
  EXPECT_TRUE(in.AtEnd());
  EXPECT_EQ(in.Remaining(), 0u);
}

// Reading past the end, or a count that claims more than is left, throws ArchiveError (never
// reads out of bounds or allocates what the count claims).
TEST(CArchive, ReadingPastTheEndThrows) {
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    void (*read)(CArchive&);
  } cases[] = {
      {"word from nothing", {}, [](CArchive& a) { a.ReadWord(); }},
      {"word from three bytes", {1, 2, 3}, [](CArchive& a) { a.ReadWord(); }},
      {"second word", {1, 2, 3, 4, 5}, [](CArchive& a) { a.ReadWord(); a.ReadWord(); }},
      {"double from four bytes", {0, 0, 0, 0}, [](CArchive& a) { a.ReadDouble(); }},
      {"double from seven bytes", {0, 0, 0, 0, 0, 0, 0}, [](CArchive& a) { a.ReadDouble(); }},
      {"float from two bytes", {0, 0}, [](CArchive& a) { a.ReadFloat(); }},
      {"string longer than the rest", {3, 0, 0, 0, 'a', 'b'}, [](CArchive& a) { a.ReadString(); }},
      {"string claiming 4 GiB", {0xFF, 0xFF, 0xFF, 0xFF, 'a'}, [](CArchive& a) { a.ReadString(); }},
      {"string without its count", {1, 0}, [](CArchive& a) { a.ReadString(); }},
      {"bytes past the end", {1, 2}, [](CArchive& a) {
         uint8_t b[3];
         a.ReadBytes(b, 3);
       }},
  };
  for (const auto& c : cases) {
    CArchive ar(c.bytes);
    EXPECT_THROW(c.read(ar), ArchiveError) << c.what;
  }
}

// The message of the ArchiveError that `f` throws, or "" when it throws none.
template <class F>
std::string ArchiveErrorOf(F f) {
  try {
    f();
  } catch (const ArchiveError& e) {
    return e.what();
  }
  return "";
}

// Files are replaced whole, leave no temporary file behind, and a file that cannot be read or
// written is named in the error.
TEST(CArchive, FilesHoldExactlyTheBytesAndFailuresNameThePath) {
  const test_tools::TempFolder dir;
  CArchive out;
  out.WriteWord(FourCC("KFlw"));
  out.WriteString("flow");
  out.WriteDouble(24.0);
  const std::string path = dir / "a.kfl";
  out.WriteFile(path);
  out.WriteWord(7);  // replacing a file replaces it whole
  out.WriteFile(path);

  CArchive in = CArchive::FromFile(path);
  EXPECT_TRUE(in.IsLoading());
  EXPECT_EQ(in.Bytes(), out.Bytes());
  EXPECT_EQ(dir.Files(), std::vector<std::string>{"a.kfl"}) << "a temporary file was left behind";

  const std::string missing = dir / "none.kfl", unwritable = dir / "no-such-folder/a.kfl";
  EXPECT_NE(ArchiveErrorOf([&] { (void)CArchive::FromFile(missing); }).find(missing), std::string::npos);
  EXPECT_NE(ArchiveErrorOf([&] { CArchive().WriteFile(unwritable); }).find(unwritable), std::string::npos);
}

}  // namespace
}  // namespace kestrion
