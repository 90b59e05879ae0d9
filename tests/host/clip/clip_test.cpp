// Clips on disk: the ways a clip is named, the frames a sequence has, frame file names, frames
// written and read back unchanged, and writes queued on a frame writer.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "host/clip/clip.h"
#include "tests/host/test_tools.h"
#include "tests/tools/clip/clip_fixture.h"

namespace kestrion::clip_test {
namespace {

class ClipTest : public ::testing::Test {
 protected:
  static uint32_t FirstPixel(ClipParameter& clip, int frame) {
    const Ref<Image> img = Ref<Image>::Adopt(clip.ReadFrame(frame, nullptr, nullptr));
    return img ? img->Row(0)[0] : 0;
  }
  test_tools::TempFolder dir_;
};

// On disk: plate.0040, 0041 and 0045 (.png), and files of no sequence of them.
TEST_F(ClipTest, NamesAndTheFramesOnDisk) {
  WriteSequence(dir_ / "plate.####.png", 40, 41);
  WriteSequence(dir_ / "plate.####.png", 45, 45);
  WriteSequence(dir_ / "other.####.png", 30, 30);
  WriteSequence(dir_ / "still.png", 1, 1);
  WriteBytes(dir_ / "plate.0010.jpg", "not read");
  const struct {
    std::string name;
    bool sequence;
    int first, length;
    std::string path_of_7;
  } cases[] = {
      {"plate.####.png", true, 40, 6, "plate.0007.png"},
      {"plate.%04d.png", true, 40, 6, "plate.0007.png"},
      {"plate.0042.png", true, 40, 6, "plate.0007.png"},  // one member names the whole sequence
      {"plate.%02d.png", true, 0, 0, "plate.07.png"},     // its frame 40 would be plate.40.png
      {"none.####.png", true, 0, 0, "none.0007.png"},
      {"still.png", false, 0, 1, "still.png"},
      {"absent.png", false, 0, 0, "absent.png"},
  };
  for (const auto& c : cases) {
    const ClipParameter clip(dir_ / c.name);
    EXPECT_EQ((std::tuple{clip.IsSequence(), clip.FirstNumber(), clip.Length(), clip.FramePath(7)}),
              (std::tuple{c.sequence, c.first, c.length, dir_ / c.path_of_7}))
        << c.name;
  }
  // Clip frame f is the file numbered first + f; a gap cannot be read.
  ClipParameter plate(dir_ / "plate.####.png");
  for (const auto& [frame, pixel] : std::vector<std::pair<int, uint32_t>>{{0, Marker(40)}, {1, Marker(41)}, {5, Marker(45)}, {2, 0}})
    EXPECT_EQ(FirstPixel(plate, frame), pixel) << frame;
}

TEST_F(ClipTest, NumbersArePaddedToThePatternsWidth) {
  const std::string pattern = dir_ / "w.####.png";
  for (const auto& [number, file] : std::vector<std::pair<int, std::string>>{
           {0, "w.0000.png"}, {42, "w.0042.png"}, {9999, "w.9999.png"}, {123456, "w.123456.png"}})
    EXPECT_EQ(ClipParameter(pattern).FramePath(number), dir_ / file);
  EXPECT_EQ(ClipParameter(dir_ / "w.%d.png").FramePath(1234), dir_ / "w.1234.png");

  // A sequence running past the pattern's width reads on in order.
  WriteSequence(pattern, 9998, 10001);
  EXPECT_EQ(dir_.Files(), (std::vector<std::string>{"w.10000.png", "w.10001.png", "w.9998.png", "w.9999.png"}));
  ClipParameter wide(pattern);
  EXPECT_EQ((std::pair{wide.FirstNumber(), wide.Length()}), (std::pair{9998, 4}));
  for (int f = 0; f < 4; ++f) EXPECT_EQ(FirstPixel(wide, f), Marker(9998 + f)) << f;
}

// 8-bit values pass unchanged, also the colour of transparent pixels; a frame read and
// written again gives the same file, and no temporary file stays.
TEST_F(ClipTest, PngWrittenAndReadBackIsTheSame) {
  const std::vector<uint32_t> words{
      Bgra(10, 20, 30, 0),   Bgra(255, 255, 255, 0), Bgra(200, 100, 50, 1),  Bgra(1, 2, 3, 128),
      Bgra(0, 0, 0, 255),    Bgra(255, 0, 128, 255), Bgra(77, 66, 55, 254),  Bgra(0, 0, 0, 0),
      Bgra(250, 251, 252, 3), Bgra(9, 8, 7, 64),     Bgra(128, 128, 128, 127), Bgra(13, 200, 97, 200),
  };
  ClipParameter first(dir_ / "first.png");
  ASSERT_EQ(first.WriteFrame(0, Frame(4, 3, words).get(), nullptr), 1u) << first.LastError();
  const Ref<Image> back = Ref<Image>::Adopt(first.ReadFrame(0, nullptr, nullptr));
  ASSERT_TRUE(back);
  EXPECT_EQ((std::pair{back->Width(), back->Height()}), (std::pair{4, 3}));
  EXPECT_EQ(test::Words(*back), words);
  ClipParameter second(dir_ / "second.png");
  ASSERT_EQ(second.WriteFrame(0, back.get(), nullptr), 1u) << second.LastError();
  EXPECT_EQ(ReadBytes(dir_ / "second.png"), ReadBytes(dir_ / "first.png"));
  EXPECT_EQ(dir_.Files(), (std::vector<std::string>{"first.png", "second.png"}));
}

std::string BigEndian(uint32_t v, int bytes) {
  std::string out;
  for (int i = bytes - 1; i >= 0; --i) out += char(v >> (8 * i));
  return out;
}

std::string Chunk(const std::string& type, const std::string& data) {
  const std::string body = type + data;
  return BigEndian(uint32_t(data.size()), 4) + body +
         BigEndian(uint32_t(crc32(0, reinterpret_cast<const Bytef*>(body.data()), uInt(body.size()))), 4);
}

// A PNG of one row of `width` pixels stored as `row`, with `chunks` (palette, transparency)
// before its data.
std::string Png(int width, int depth, int colour_type, const std::string& row, const std::string& chunks) {
  const std::string raw = std::string(1, '\0') + row;  // filter type 0
  uLongf size = compressBound(uLong(raw.size()));
  std::string packed(size, '\0');
  compress(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(raw.data()), uLong(raw.size()));
  packed.resize(size);
  const std::string header = BigEndian(uint32_t(width), 4) + BigEndian(1, 4) + char(depth) + char(colour_type) + std::string(3, '\0');
  return "\x89PNG\r\n\x1a\n" + Chunk("IHDR", header) + chunks + Chunk("IDAT", packed) + Chunk("IEND", "");
}

std::string Samples(int bytes, std::initializer_list<uint32_t> values) {
  std::string out;
  for (uint32_t v : values) out += BigEndian(v, bytes);
  return out;
}

// Files without alpha read as opaque, grey fills all three colours, and a PNG's transparency
// chunk makes the grey level or colour it names (at the file's own depth) transparent, or gives
// the alpha of each palette entry. 16-bit values are rounded to 8 bits.
TEST_F(ClipTest, OtherChannelLayoutsReadAsBgra) {
  const std::string palette = Chunk("PLTE", Samples(1, {255, 0, 0, 0, 255, 0, 0, 0, 255, 9, 9, 9}));
  const struct {
    const char* name;
    std::string bytes;
    std::vector<uint32_t> words;
  } cases[] = {
      {"rgb.ppm", std::string("P6\n2 1\n255\n") + "\x0a\x14\x1e\xc8\x64\x32", {Bgra(30, 20, 10, 255), Bgra(50, 100, 200, 255)}},
      {"grey.pgm", std::string("P5\n2 1\n255\n") + "\x07\xfa", {Bgra(7, 7, 7, 255), Bgra(250, 250, 250, 255)}},
      {"grey.png", Png(3, 8, 0, Samples(1, {0, 50, 255}), Chunk("tRNS", Samples(2, {50}))),
       {Bgra(0, 0, 0, 255), Bgra(50, 50, 50, 0), Bgra(255, 255, 255, 255)}},
      // 0x3200 and 0x3201 both round to 50; only the second is the transparent level.
      {"grey-deep.png", Png(3, 16, 0, Samples(2, {0x3200, 0x3201, 0xFFFF}), Chunk("tRNS", Samples(2, {0x3201}))),
       {Bgra(50, 50, 50, 255), Bgra(50, 50, 50, 0), Bgra(255, 255, 255, 255)}},
      {"grey-low.png", Png(4, 2, 0, Samples(1, {0x1B}), Chunk("tRNS", Samples(2, {1}))),
       {Bgra(0, 0, 0, 255), Bgra(85, 85, 85, 0), Bgra(170, 170, 170, 255), Bgra(255, 255, 255, 255)}},
      {"rgb.png", Png(2, 8, 2, Samples(1, {10, 20, 30, 10, 20, 31}), Chunk("tRNS", Samples(2, {10, 20, 30}))),
       {Bgra(30, 20, 10, 0), Bgra(31, 20, 10, 255)}},
      {"rgb-deep.png", Png(2, 16, 2, Samples(2, {1000, 2000, 3000, 1000, 2000, 3001}), Chunk("tRNS", Samples(2, {1000, 2000, 3000}))),
       {Bgra(12, 8, 4, 0), Bgra(12, 8, 4, 255)}},
      // Entries past the end of the chunk are opaque.
      {"palette.png", Png(4, 8, 3, Samples(1, {0, 1, 2, 3}), palette + Chunk("tRNS", Samples(1, {0, 128}))),
       {Bgra(0, 0, 255, 0), Bgra(0, 255, 0, 128), Bgra(255, 0, 0, 255), Bgra(9, 9, 9, 255)}},
      {"palette-low.png", Png(4, 2, 3, Samples(1, {0x1B}), palette + Chunk("tRNS", Samples(1, {255, 0, 7}))),
       {Bgra(0, 0, 255, 255), Bgra(0, 255, 0, 0), Bgra(255, 0, 0, 7), Bgra(9, 9, 9, 255)}},
  };
  for (const auto& c : cases) {
    WriteBytes(dir_ / c.name, c.bytes);
    EXPECT_EQ(Words(ReadNumber(dir_ / c.name, 0)), c.words) << c.name;
  }
}

// A name without a frame pattern is one frame: every frame reads it, a write at any frame
// replaces it.
TEST_F(ClipTest, SingleFileClip) {
  ClipParameter clip(dir_ / "still.png");
  for (const int n : {1, 2}) {
    ASSERT_EQ(clip.WriteFrame(3 * n, Flat(1, 1, Marker(n)).get(), nullptr), 1u);
    clip.BeginUse();  // looks at the disk again
    EXPECT_EQ(clip.Length(), 1);
    for (int f : {0, 7}) EXPECT_EQ(FirstPixel(clip, f), Marker(n)) << f;
  }
  EXPECT_EQ(dir_.Files(), std::vector<std::string>{"still.png"});
}

// A relative name is taken from the base folder (that of the flow holding it); an absolute
// one is not. Without a base folder, a name with no folder is a sequence in the current folder,
// with or without text before the number.
TEST_F(ClipTest, RelativeNames) {
  fs::create_directory(dir_.path() / "shots");
  WriteSequence(dir_ / "shots/plate.####.png", 1, 3);
  ClipParameter relative("shots/plate.####.png", dir_.path().string());
  EXPECT_EQ(relative.Name(), "shots/plate.####.png");
  EXPECT_EQ(relative.Path(), dir_ / "shots/plate.####.png");
  EXPECT_EQ((std::pair{relative.FirstNumber(), relative.Length()}), (std::pair{1, 3}));
  EXPECT_EQ(FirstPixel(relative, 1), Marker(2));
  ASSERT_EQ(relative.WriteFrame(4, Flat(1, 1, Marker(4)).get(), nullptr), 1u) << relative.LastError();
  EXPECT_TRUE(fs::exists(dir_ / "shots/plate.0004.png"));

  EXPECT_EQ(ClipParameter(dir_ / "shots/plate.####.png", "/nowhere").Length(), 4);
  EXPECT_EQ(ClipParameter("shots/plate.####.png", dir_ / "shots").Length(), 0);

  WriteSequence(dir_ / "####.png", 3, 4);
  WriteSequence(dir_ / "take.####.png", 8, 8);
  const fs::path before = fs::current_path();
  fs::current_path(dir_.path());
  const ClipParameter bare("####.png"), member("0003.png"), named("take.####.png");
  fs::current_path(before);
  for (const ClipParameter* clip : {&bare, &member}) EXPECT_EQ((std::pair{clip->FirstNumber(), clip->Length()}), (std::pair{3, 2}));
  EXPECT_EQ((std::pair{named.FirstNumber(), named.Length()}), (std::pair{8, 1}));
}

// Queued writes run in order on the writer's thread; a failed one drops the writes behind it,
// queued before or after, and a wait reports it only to the tickets from it on.
TEST_F(ClipTest, QueuedWritesRunInOrderUntilOneFails) {
  std::vector<int> ran;  // the writer's thread appends; read after a wait
  FrameWriter writer;
  const auto queue = [&](int n, bool fails) {
    return writer.Queue([&ran, n, fails]() -> std::optional<Failure> {
      ran.push_back(n);
      if (fails) return Failure{"write " + std::to_string(n) + " failed", true};
      return std::nullopt;
    });
  };
  const uint64_t first = queue(1, false), second = queue(2, false), failing = queue(3, true);
  const uint64_t behind = queue(4, false);
  EXPECT_EQ((std::vector<uint64_t>{first, second, failing, behind}), (std::vector<uint64_t>{1, 2, 3, 4}));
  EXPECT_FALSE(writer.Wait(second));
  for (const uint64_t ticket : {failing, behind, queue(5, false)}) {
    const std::optional<Failure> failure = writer.Wait(ticket);
    ASSERT_TRUE(failure) << ticket;
    EXPECT_EQ(failure->message, "write 3 failed");
    EXPECT_TRUE(failure->temporary);
  }
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  // Once the failure is told and cleared, later writes go ahead.
  writer.ClearFailure();
  EXPECT_FALSE(writer.Wait(queue(6, false)));
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 6}));
}

// Compression levels are kept per format, whichever spelling of its extension names it.
TEST_F(ClipTest, CompressionKeysNameTheFormat) {
  const test_tools::SavedPrefs saved;
  ClipParameter::SetCompression(std::map<std::string, int>{});
  ClipParameter::SetCompression("TIF", 0);
  ClipParameter::SetCompression(".jpeg", 90);
  ClipParameter::SetCompression("png", 6);
  EXPECT_EQ(ClipParameter::Compression(), (std::map<std::string, int>{{"jpg", 90}, {"png", 6}, {"tiff", 0}}));
}

// The bytes of a flat frame written here, for the damaged frames below to start from.
std::string WrittenFrame(const std::string& path, int width, int height) {
  ClipParameter clip(path);
  EXPECT_EQ(clip.WriteFrame(0, Flat(width, height, Bgra(1, 2, 3, 4)).get(), nullptr), 1u) << clip.LastError();
  return ReadBytes(path);
}

void PutWord(std::string& bytes, size_t at, uint32_t v, int size) {
  for (int i = 0; i < size; ++i) bytes[at + size_t(i)] = char(v >> (8 * i));
}

// A little-endian TIFF with its width and height set in its first directory.
std::string TiffOfSize(std::string tiff, uint32_t width, uint32_t height) {
  const auto word = [&](size_t at, int size) {
    uint32_t v = 0;
    for (int i = size - 1; i >= 0; --i) v = v << 8 | uint8_t(tiff[at + size_t(i)]);
    return v;
  };
  const size_t ifd = word(4, 4);
  for (uint32_t i = 0, n = word(ifd, 2); i < n; ++i) {
    const size_t entry = ifd + 2 + 12 * i;
    const uint32_t tag = word(entry, 2), type = word(entry + 2, 2);
    if (tag == 256 || tag == 257) PutWord(tiff, entry + 8, tag == 256 ? width : height, type == 3 ? 2 : 4);
  }
  return tiff;
}

// An OpenEXR file with the four numbers of a box attribute, or the size of an attribute, set.
std::string ExrWith(std::string exr, const std::string& attribute, std::vector<int32_t> values) {
  const size_t at = exr.find(attribute + '\0');
  const size_t size_at = exr.find('\0', at + attribute.size() + 1) + 1;
  if (values.size() == 1) PutWord(exr, size_at, uint32_t(values[0]), 4);
  for (size_t i = 0; values.size() == 4 && i < 4; ++i) PutWord(exr, size_at + 4 + 4 * i, uint32_t(values[i]), 4);
  return exr;
}

// A PNG whose header claims a size and whose data holds one pixel.
std::string PngHeaderOnly(uint32_t width, uint32_t height) {
  const std::string one_pixel = Png(1, 8, 6, std::string(4, '\0'), "");
  const size_t data = one_pixel.find("IDAT") - 4;
  return "\x89PNG\r\n\x1a\n" +
         Chunk("IHDR", BigEndian(width, 4) + BigEndian(height, 4) + "\x08\x06" + std::string(3, '\0')) +
         one_pixel.substr(data);
}

struct DamagedFrame {
  const char* name;
  std::string bytes;
  const char* told;  // what the one message says
};

std::vector<DamagedFrame> DamagedFrames(const test_tools::TempFolder& dir) {
  const std::string png = WrittenFrame(dir / "small.png", 64, 64);
  const std::string tiff = WrittenFrame(dir / "small.tif", 2, 2);
  const std::string exr = WrittenFrame(dir / "small.exr", 2, 2);
  return {
      {"huge.png", PngHeaderOnly(100000, 100000), "100000 x 100000"},
      {"huge.tif", TiffOfSize(tiff, 60000, 60000), "60000 x 60000"},
      {"huge.exr", ExrWith(exr, "dataWindow", {0, 0, 99999, 99999}), "100000 x 100000"},
      {"attribute.exr", ExrWith(exr, "compression", {0x7FFFFF00}), "claims 2147483392 bytes"},
      // Found by fuzzing: OpenEXR reads a channel list past its size and then trusts what follows.
      {"channels.exr", ExrWith(exr, "channels", {1}), "does not hold a chlist"},
      {"cut.png", png.substr(0, png.size() / 2), "the file ends early"},
      {"empty.png", "", "Not a PNG file"},
  };
}

// A frame that is damaged, or claims a size past the image size limit, fails with one message
// of one line naming the file, and the codec says nothing of its own on the terminal.
TEST_F(ClipTest, DamagedAndOversizedFramesAreToldInOneMessage) {
  for (const DamagedFrame& frame : DamagedFrames(dir_)) {
    SCOPED_TRACE(frame.name);
    WriteBytes(dir_ / frame.name, frame.bytes);
    TakeFailures();
    testing::internal::CaptureStderr();
    ClipParameter clip(dir_ / frame.name);
    EXPECT_EQ(clip.ReadFrame(0, nullptr, nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    const std::vector<Failure> failures = TakeFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].message.find(dir_ / frame.name), std::string::npos) << failures[0].message;
    EXPECT_NE(failures[0].message.find(frame.told), std::string::npos) << failures[0].message;
    EXPECT_EQ(failures[0].message.find('\n'), std::string::npos) << failures[0].message;
  }
}

// Reading those frames never takes more memory than the image size limit and a small margin:
// in a child process whose address space allows no more than that, each is still refused with
// its own message (a larger allocation would fail there and change the outcome). A header
// that claims a frame just within the limit gets its frame and then fails on the missing data.
TEST_F(ClipTest, OversizedHeadersTakeNoMoreThanTheSizeLimit) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's shadow memory leaves no address-space limit to test against";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr size_t kLimit = size_t(64) << 20, kMargin = size_t(32) << 20;
  std::vector<DamagedFrame> frames = DamagedFrames(dir_);
  frames.push_back({"limit.png", PngHeaderOnly(4096, 4096), "Not enough image data"});
  // Found by fuzzing: a frame within the limit whose rows are so wide that the codec library's
  // buffer of 256 of them is not.
  frames.push_back({"wide.exr", ExrWith(WrittenFrame(dir_ / "small.exr", 2, 2), "dataWindow", {0, 0, 199999, 0}),
                    "256 rows at a time"});
  for (const DamagedFrame& frame : frames) WriteBytes(dir_ / frame.name, frame.bytes);
  const auto read_all_within_the_limit = [&] {
    KeepCodecsOnCallingThread();
    Image::SetSizeLimit(kLimit);
    for (const char* warm_up : {"small.png", "small.tif", "small.exr"})
      ClipParameter(dir_ / warm_up).ReadFrame(0, nullptr, nullptr)->Recycle();
    size_t in_use = 0;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
      if (line.rfind("VmSize:", 0) == 0) in_use = std::stoul(line.substr(7)) * 1024;
    const rlimit most{in_use + kLimit + kMargin, in_use + kLimit + kMargin};
    if (in_use == 0 || setrlimit(RLIMIT_AS, &most) != 0) std::_Exit(3);
    int wrong = 0;
    for (const DamagedFrame& frame : frames) {
      TakeFailures();
      const bool refused = ClipParameter(dir_ / frame.name).ReadFrame(0, nullptr, nullptr) == nullptr;
      const std::vector<Failure> failures = TakeFailures();
      if (!refused || failures.empty() || failures[0].message.find(frame.told) == std::string::npos) {
        std::fprintf(stderr, "%s: %s\n", frame.name, failures.empty() ? "read" : failures[0].message.c_str());
        ++wrong;
      }
    }
    std::fflush(stderr);
    std::_Exit(wrong == 0 ? 0 : 1);
  };
  EXPECT_EXIT(read_all_within_the_limit(), testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
}  // namespace kestrion::clip_test
