// `kestrion render` and `kestrion convert` run as a render farm runs them. Every flow and frame
// lives in a fresh temporary folder.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/cli/command_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace kestrion::cli_test;

// The file name of one frame number, as a printf pattern such as "f.%04d.png" gives it.
std::string FrameName(const char* pattern, int number) {
  char name[64];
  std::snprintf(name, sizeof name, pattern, number);
  return name;
}

// The file names of the given frame numbers, sorted as TempFolder::Files sorts them.
std::vector<std::string> Frames(const char* pattern, const std::vector<int>& numbers) {
  std::vector<std::string> names;
  for (int n : numbers) names.push_back(FrameName(pattern, n));
  std::sort(names.begin(), names.end());
  return names;
}

// The files of a folder under `dir`, their bytes by name.
std::map<std::string, std::string> FilesIn(const TempFolder& dir, const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const std::string& name : dir.Files(folder)) files[name] = ReadBytes(dir / (folder + "/" + name));
  return files;
}

// Pixels as floats, four channels (alpha 1 where the file has none).
struct Picture {
  int width = 0, height = 0;
  std::string format;
  std::vector<float> rgba;
};

Picture ReadPicture(const fs::path& path) {
  kestrion::KeepCodecsOnCallingThread();
  Picture pic;
  OIIO::ImageSpec info;
  auto in = OIIO::ImageInput::create(path.string());
  if (!in || !in->open(path.string(), info)) return pic;
  std::vector<float> data(size_t(info.width) * info.height * info.nchannels);
  if (!in->read_image(0, 0, 0, info.nchannels, OIIO::TypeDesc::FLOAT, data.data())) return pic;
  pic.width = info.width;
  pic.height = info.height;
  pic.format = info.format.c_str();
  for (size_t p = 0; p < size_t(info.width) * info.height; ++p)
    for (int c = 0; c < 4; ++c) pic.rgba.push_back(c < info.nchannels ? data[p * info.nchannels + c] : 1.0f);
  return pic;
}

// A copy of the example flow and its media, and the command run on it.
class RenderCommandTest : public CommandTest {
 protected:
  void SetUp() override { CopyExample(); }

  Outcome Render(const fs::path& flow, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"render", flow.string()});
    return RunAll({more})[0];
  }

  // Writes a flow that runs the example clip into one Saver per clip name.
  fs::path WriteFlow(const std::string& name, const std::vector<std::string>& saver_clips,
                     const std::string& loader_inputs = "", const std::string& range = "[1, 8]") {
    std::string tools =
        R"("Loader1": {"class": "Loader", "inputs": {"Filename": "media/plate.####.png")" + loader_inputs + "}}";
    for (size_t i = 0; i < saver_clips.size(); ++i)
      tools += ", \"Saver" + std::to_string(i + 1) + R"(": {"class": "Saver", "inputs": {"Filename": ")" +
               saver_clips[i] + R"(", "Image": "Loader1"}})";
    const fs::path path = dir_.path() / name;
    WriteBytes(path, R"({"kestrion": 1, "range": )" + range + R"(, "tools": {)" + tools + "}}");
    return path;
  }
};

// The example flow renders all its frames; converted to a document and back, it renders the
// same bytes in all three forms (each form beside its own copy of the media).
TEST_F(RenderCommandTest, TheExampleFlowAndItsConversionsRenderTheSameFrames) {
  ASSERT_EQ(RunAll({{"convert", dir_ / "grade.json", dir_ / "grade.kfl"}})[0].status, 0);
  ASSERT_EQ(RunAll({{"convert", dir_ / "grade.kfl", dir_ / "back.json"}})[0].status, 0);
  const std::vector<std::string> forms{"grade.json", "grade.kfl", "back.json"};
  std::vector<std::vector<std::string>> renders;
  for (size_t i = 0; i < forms.size(); ++i) {
    const fs::path folder = dir_.path() / ("form" + std::to_string(i));
    fs::create_directories(folder);
    fs::copy(dir_.path() / "media", folder / "media");
    fs::copy_file(dir_.path() / forms[i], folder / forms[i]);
    renders.push_back({"render", (folder / forms[i]).string()});
  }
  const auto runs = RunAll(renders);
  for (size_t i = 0; i < forms.size(); ++i) {
    SCOPED_TRACE(forms[i]);
    ASSERT_EQ(runs[i].status, 0) << runs[i].err;
    const auto lines = Lines(runs[i].err);
    ASSERT_EQ(lines.size(), 8u) << runs[i].err;
    EXPECT_TRUE(Contains(lines[7], "frame 8 done")) << lines[7];
    EXPECT_TRUE(FilesIn(dir_, "form" + std::to_string(i) + "/out") == FilesIn(dir_, "form0/out"));
  }
  EXPECT_EQ(dir_.Files("form0/out"), Frames("grade.%04d.png", {1, 2, 3, 4, 5, 6, 7, 8}));
  const Picture graded = ReadPicture(dir_.path() / "form0" / "out" / "grade.0005.png");
  EXPECT_EQ((std::pair{graded.width, graded.height}), (std::pair{160, 90}));
  EXPECT_NE(graded.rgba, ReadPicture(dir_.path() / "media" / "plate.0005.png").rgba) << "the grade changed nothing";
}

// One PNG sequence into TIFF (8-bit, exact) and EXR (half float) at once.
TEST_F(RenderCommandTest, APngSequenceRendersToTiffAndExr) {
  const fs::path flow = WriteFlow("formats.json", {"out/conv.####.tif", "out/conv.####.exr"});
  const Outcome run = Render(flow, {"-F", "3-4"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(dir_.Files("out"),
            (std::vector<std::string>{"conv.0003.exr", "conv.0003.tif", "conv.0004.exr", "conv.0004.tif"}));
  for (int n : {3, 4}) {
    SCOPED_TRACE(n);
    const Picture source = ReadPicture(dir_.path() / "media" / FrameName("plate.%04d.png", n));
    const Picture tiff = ReadPicture(dir_.path() / "out" / FrameName("conv.%04d.tif", n));
    const Picture half = ReadPicture(dir_.path() / "out" / FrameName("conv.%04d.exr", n));
    ASSERT_EQ(source.rgba.size(), size_t(160) * 90 * 4);
    EXPECT_EQ(tiff.format, "uint8");
    EXPECT_EQ(tiff.rgba, source.rgba);
    EXPECT_EQ(half.format, "half");
    ASSERT_EQ(half.rgba.size(), source.rgba.size());
    float worst = 0;
    for (size_t i = 0; i < source.rgba.size(); ++i) worst = std::max(worst, std::fabs(half.rgba[i] - source.rgba[i]));
    EXPECT_LT(worst, 1.0f / 1024) << "half floats hold 8-bit values to within their precision";
  }
}

// --resume renders what is missing or empty and leaves the frames already on disk alone.
TEST_F(RenderCommandTest, ResumeRendersOnlyMissingAndEmptyFrames) {
  ASSERT_EQ(Render(dir_.path() / "grade.json", {"-F", "1-4"}).status, 0);
  const fs::path out = dir_.path() / "out";
  fs::remove(out / "grade.0002.png");
  std::ofstream(out / "grade.0003.png", std::ios::trunc).close();
  const auto stat_of = [&](const char* name) {
    struct stat info{};
    EXPECT_EQ(::stat((out / name).c_str(), &info), 0) << name;
    return info;
  };
  const struct stat kept_before = stat_of("grade.0001.png"), emptied_before = stat_of("grade.0003.png");

  const Outcome run = Render(dir_.path() / "grade.json", {"--resume"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(dir_.Files("out"), Frames("grade.%04d.png", {1, 2, 3, 4, 5, 6, 7, 8}));
  const struct stat kept_after = stat_of("grade.0001.png"), emptied_after = stat_of("grade.0003.png");
  EXPECT_EQ(kept_after.st_ino, kept_before.st_ino);
  EXPECT_EQ(kept_after.st_mtim.tv_sec, kept_before.st_mtim.tv_sec);
  EXPECT_EQ(kept_after.st_mtim.tv_nsec, kept_before.st_mtim.tv_nsec);
  EXPECT_NE(emptied_after.st_ino, emptied_before.st_ino) << "the empty frame was not rendered again";
  EXPECT_GT(emptied_after.st_size, 0);
  EXPECT_GT(fs::file_size(out / "grade.0002.png"), 0u);
  for (int n : {1, 4}) EXPECT_TRUE(Contains(run.err, "frame " + std::to_string(n) + " already on disk")) << run.err;
  for (int n : {2, 3, 5, 8}) EXPECT_TRUE(Contains(run.err, "frame " + std::to_string(n) + " done")) << run.err;
}

// Frame lists START-END[xSTEP] choose the frames; each case writes into a folder of its own.
TEST_F(RenderCommandTest, FrameListsChooseTheFrames) {
  const struct {
    const char* frames;
    std::vector<int> rendered;
  } cases[] = {{"1-8x2", {1, 3, 5, 7}}, {"6-8x5", {6}}};
  std::vector<std::vector<std::string>> commands;
  for (size_t i = 0; i < std::size(cases); ++i) {
    const fs::path flow = WriteFlow("frames" + std::to_string(i) + ".json", {"out" + std::to_string(i) + "/f.####.png"});
    commands.push_back({"render", flow.string(), "-F", cases[i].frames});
  }
  const auto runs = RunAll(commands);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].frames);
    EXPECT_EQ(runs[i].status, 0) << runs[i].err;
    EXPECT_EQ(dir_.Files("out" + std::to_string(i)), Frames("f.%04d.png", cases[i].rendered));
  }
}

// A frame the clip does not reach fails the render with status 1 after the frames before it,
// and the one message says which frame, which clip and how to fix the flow.
TEST_F(RenderCommandTest, FramesPastTheClipSayWhy) {
  const struct {
    const char* what;
    const char* range;
    const char* loader_inputs;
    std::vector<int> written;
    std::vector<std::string> message;
  } rows[] = {
      {"a clip shorter than the range", "[1, 12]", "", {1, 2, 3, 4, 5, 6, 7, 8},
       {"frame 9", R"(tool "Saver1": no image reached it: tool "Loader1")", "'media/plate.####.png', files 1-8",
        "covers frames 1-8 only", R"(hold its last frame with "Extend Last Frame", or shorten the flow's range)"}},
      {"a Loader starting after the range", "[1, 8]", R"(, "Global In": 5)", {},
       {"frame 1", "covers frames 5-8 only", R"(start it earlier with "Global In", or start the flow's range later)"}},
  };
  std::vector<std::vector<std::string>> commands;
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string name = "past" + std::to_string(i);
    const fs::path flow = WriteFlow(name + ".json", {name + "/f.####.png"}, rows[i].loader_inputs, rows[i].range);
    commands.push_back({"render", flow.string()});
  }
  const auto runs = RunAll(commands);
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].what);
    EXPECT_EQ(runs[i].status, 1) << runs[i].err;
    EXPECT_EQ(dir_.Files("past" + std::to_string(i)), Frames("f.%04d.png", rows[i].written));
    const auto lines = Lines(runs[i].err);
    ASSERT_FALSE(lines.empty());
    for (const std::string& piece : rows[i].message) EXPECT_TRUE(Contains(lines.back(), piece)) << lines.back();
    EXPECT_EQ(runs[i].err.find("Extend Last Frame"), runs[i].err.rfind("Extend Last Frame")) << runs[i].err;
  }
}

// Converted, a flow that gave its Loader nothing but the clip holds the extents it ended up with:
// the clip's 8 frames cut to the range.
TEST_F(RenderCommandTest, ConvertWritesTheExtentsALoaderEndsUpWith) {
  ASSERT_EQ(RunAll({{"convert", WriteFlow("flow.json", {}, "", "[1, 6]"), dir_ / "out.json"}})[0].status, 0);
  const auto inputs = nlohmann::json::parse(ReadBytes(dir_ / "out.json"))["tools"]["Loader1"]["inputs"];
  for (const auto& [label, value] : std::vector<std::pair<const char*, double>>{
           {"Clip Time Start", 0}, {"Clip Time End", 5}, {"Global In", 1}, {"Global Out", 6}})
    EXPECT_EQ(inputs.value(label, -1.0), value) << label;
}

// A wrong command line or flow renders nothing and gives status 2, with one message that names
// what is wrong: the option, the frame list, the file, or the flow file and the fault in it (the
// wording of each load error is flow_file_test's). The option parser adds a hint line.
TEST_F(RenderCommandTest, WrongCommandsAndFlowsGiveStatus2) {
  const std::string loader = R"("Loader1": {"class": "Loader", "inputs": {"Filename": "media/plate.####.png"}})";
  const std::string saver = R"("Saver1": {"class": "Saver", "inputs": {"Filename": "out/a.####.png", "Image": "Loader1"}})";
  const auto flow = [&](const std::string& name, const std::string& tools) {
    WriteBytes(dir_ / name, R"({"kestrion": 1, "range": [1, 8], "tools": {)" + tools + "}}");
    return dir_ / name;
  };
  const std::string grade = dir_ / "grade.json";
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> told;
    size_t lines = 1;
  } rows[] = {
      {{"render", grade, "--fast"}, {"--fast"}, 2},
      {{"render", grade, "--threads", "0"}, {"--threads"}, 2},
      {{"render", dir_ / "none.json"}, {"none.json"}},
      {{"convert", grade, dir_ / "grade.txt"}, {"grade.txt"}},
      {{"render", grade, "-F", "8-1"}, {"-F 8-1"}},
      {{"render", grade, "-F", "1-8x0"}, {"-F 1-8x0"}},
      {{"render", grade, "-F", "1-"}, {"-F 1-"}},
      {{"render", grade, "-F", "1.5-3"}, {"-F 1.5-3"}},
      {{"render", grade, "-F", "5-12"}, {"-F 5-12", "frames 9-12 lie outside the range 1-8", "grade.json"}},
      {{"render", grade, "-F", "0-12x4"}, {"frames 0 and 9-12 lie outside"}},
      {{"render", flow("class.json", loader + ", " + saver + R"(, "Blur1": {"class": "Blurr"})")},
       {"class.json", "Blurr"}},
      {{"render", flow("label.json", loader + R"(, "Saver1": {"class": "Saver", "inputs": {"File Name": "a.png"}})")},
       {"label.json", "File Name"}},
      {{"render", flow("clip.json", saver + R"(, "Loader1": {"class": "Loader", "inputs": {"Filename": "a.#.png"}})")},
       {"clip.json", R"(tool "Loader1", input "Filename")", "a.#.png", "no frames"}},
      {{"render", flow("saver.json", loader)}, {"saver.json", "no Saver"}},
  };
  std::vector<std::vector<std::string>> commands;
  for (const auto& row : rows) commands.push_back(row.args);
  const auto runs = RunAll(commands);
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(testing::PrintToString(rows[i].args));
    EXPECT_EQ(runs[i].status, 2) << runs[i].err;
    const auto lines = Lines(runs[i].err);
    ASSERT_EQ(lines.size(), rows[i].lines) << runs[i].err;
    for (const std::string& piece : rows[i].told) EXPECT_TRUE(Contains(lines[0], piece)) << lines[0];
  }
  EXPECT_FALSE(fs::exists(dir_.path() / "out"));
  EXPECT_FALSE(fs::exists(dir_.path() / "grade.txt"));
}

// A frame that cannot be written (its name is taken by a folder) is a permanent failure: status
// 1, the file and the Saver named, nothing half-written left behind. Frames are written while
// the next renders: the frames before the failed one are on disk and whole, and none after it
// is written.
TEST_F(RenderCommandTest, AFrameThatCannotBeWrittenGivesStatus1) {
  fs::create_directories(dir_.path() / "late" / "shot.0003.png");
  const Outcome run = Render(WriteFlow("late.json", {"late/shot.####.png"}), {"-F", "1-6"});
  EXPECT_EQ(run.status, 1) << run.err;
  const auto lines = Lines(run.err);
  ASSERT_EQ(lines.size(), 3u) << run.err;
  for (int n : {1, 2}) {
    EXPECT_TRUE(Contains(lines[n - 1], "frame " + std::to_string(n) + " done")) << lines[n - 1];
    EXPECT_EQ(ReadPicture(dir_.path() / "late" / FrameName("shot.%04d.png", n)).rgba,
              ReadPicture(dir_.path() / "media" / FrameName("plate.%04d.png", n)).rgba);
  }
  EXPECT_TRUE(Contains(lines[2], "late/shot.0003.png")) << lines[2];
  EXPECT_TRUE(Contains(lines[2], "Saver1")) << lines[2];
  EXPECT_EQ(dir_.Files("late"), (std::vector<std::string>{"shot.0001.png", "shot.0002.png", "shot.0003.png"}));
}

// Resize and Crop between the example clip (160 x 90) and a Saver write frames of their size in
// a proxy render: Resize at the proxy size, Crop of the frames the Loader leaves whole at its own
// (their other sizes are resize_crop_test's). A size past the image limit fails its frame with
// status 1, naming the tool and the size, and writes nothing.
TEST_F(RenderCommandTest, ResizeAndCropWriteFramesOfTheirSize) {
  const struct {
    const char* tool;
    const char* inputs;
    const char* proxy;
    int status, width, height;
  } cases[] = {
      {"Resize", R"("Width": 80, "Height": 45)", "2", 0, 40, 22},
      {"Crop", R"("X Offset": 150, "Y Offset": 80, "X Size": 64, "Y Size": 32)", "2", 0, 64, 32},
      {"Resize", R"("Width": 100000, "Height": 100000)", "1", 1, 0, 0},
  };
  std::vector<std::vector<std::string>> commands;
  for (size_t i = 0; i < std::size(cases); ++i) {
    const fs::path flow = dir_.path() / ("size" + std::to_string(i) + ".json");
    WriteBytes(flow, std::string(R"({"kestrion": 1, "range": [1, 2], "tools": {
        "Loader1": {"class": "Loader", "inputs": {"Filename": "media/plate.####.png"}},
        "Tool1": {"class": ")") + cases[i].tool + R"(", "inputs": {)" + cases[i].inputs + R"(, "Image": "Loader1"}},
        "Saver1": {"class": "Saver", "inputs": {"Filename": "out)" + std::to_string(i) + R"(/f.####.png", "Image": "Tool1"}}}})");
    commands.push_back({"render", flow.string(), "--proxy", cases[i].proxy});
  }
  const auto runs = RunAll(commands);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(commands[i][1] + " --proxy " + cases[i].proxy);
    EXPECT_EQ(runs[i].status, cases[i].status) << runs[i].err;
    const std::string out = "out" + std::to_string(i);
    if (cases[i].status != 0) {
      EXPECT_TRUE(Contains(runs[i].err, "tool 'Tool1' (Resize) failed to render frame 1: image size 100000 x 100000"))
          << runs[i].err;
      EXPECT_TRUE(dir_.Files(out).empty());
      continue;
    }
    ASSERT_EQ(dir_.Files(out), Frames("f.%04d.png", {1, 2}));
    const Picture frame = ReadPicture(dir_.path() / out / "f.0002.png");
    EXPECT_EQ(frame.width, cases[i].width);
    EXPECT_EQ(frame.height, cases[i].height);
  }
}

// A stop signal ends a long render: status 128 + 15, every frame on disk complete, no
// temporary file left.
TEST_F(RenderCommandTest, AStopSignalEndsTheRenderCleanly) {
  const fs::path flow = WriteFlow("long.json", {"out/long.####.png"}, R"(, "Loop": 1)", "[1, 100000]");
  const pid_t pid = Start({"render", flow.string(), "-F", "1-100000"}, "long");
  ASSERT_GT(pid, 0);
  using Clock = std::chrono::steady_clock;
  // Generous: on a loaded machine, or under a sanitizer, the command may take long to start.
  for (const auto give_up = Clock::now() + std::chrono::seconds(60);
       dir_.Files("out").size() < 3 && Clock::now() < give_up;)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  int wait_status = 0;
  pid_t done = 0;
  for (const auto give_up = Clock::now() + std::chrono::seconds(5);
       (done = ::waitpid(pid, &wait_status, WNOHANG)) == 0 && Clock::now() < give_up;)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (done != pid) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &wait_status, 0);
    FAIL() << "the render went on after SIGTERM";
  }
  EXPECT_EQ(StatusOf(wait_status), 128 + SIGTERM);
  const std::string err = ReadBytes(dir_ / "long.err");
  const auto lines = Lines(err);
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(Contains(lines.back(), "signal 15")) << err;

  const std::vector<std::string> files = dir_.Files("out");
  EXPECT_GE(files.size(), 3u);
  EXPECT_LT(files.size(), 100000u);
  for (const std::string& name : files) {
    EXPECT_NE(name[0], '.') << "a temporary file was left behind: " << name;
    EXPECT_EQ(ReadPicture(dir_.path() / "out" / name).width, 160) << "an incomplete frame: " << name;
  }
}

// A damaged frame in the middle of a clip: without --keep-going the render stops there with
// status 1; with it every other frame is rendered and the failed one is named at the end. Either
// way the frame's trouble is told once, in the command's own words, and the codec's own
// complaints never reach the terminal.
TEST_F(RenderCommandTest, ADamagedFrameIsToldOnceAndKeepGoingRendersTheRest) {
  const std::string plate = ReadBytes(dir_.path() / "media" / "plate.0003.png");
  WriteBytes(dir_.path() / "media" / "plate.0003.png", plate.substr(0, plate.size() / 2));
  const fs::path stop = WriteFlow("stop.json", {"stop/shot.####.png"});
  const fs::path keep = WriteFlow("keep.json", {"keep/shot.####.png"});
  const auto runs = RunAll({{"render", stop.string()}, {"render", keep.string(), "--keep-going"}});
  for (const Outcome& run : runs) {
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_FALSE(Contains(run.err, "libpng")) << run.err;
    const size_t told = run.err.find("plate.0003.png': the file ends early");
    EXPECT_NE(told, std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("plate.0003.png", told + 1), std::string::npos) << "told more than once: " << run.err;
  }
  EXPECT_EQ(dir_.Files("stop"), Frames("shot.%04d.png", {1, 2}));
  EXPECT_EQ(dir_.Files("keep"), Frames("shot.%04d.png", {1, 2, 4, 5, 6, 7, 8}));
  const auto lines = Lines(runs[1].err);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "kestrion: 1 of 8 frames failed: 3");
}

// A 1920 x 1080 frame that PNG compresses to a few hundred kilobytes: ramps with a little noise.
void WritePlate(const fs::path& path) {
  kestrion::Image plate(1920, 1080);
  uint32_t noise = 1;
  for (int y = 0; y < 1080; ++y)
    for (int x = 0; x < 1920; ++x) {
      noise = noise * 1664525u + 1013904223u;
      plate.Row(y)[x] = uint32_t(x * 255 / 1919) | uint32_t(y * 255 / 1079) << 8 | ((noise >> 24) & 7) << 16 | 0xFFu << 24;
    }
  kestrion::ClipParameter clip(path.string());
  ASSERT_EQ(clip.WriteFrame(0, &plate, nullptr), 1u) << clip.LastError();
}

// A flow of `frames` frames of the plate through an animated grade into `out`.
fs::path WriteGradeFlow(const TempFolder& dir, const std::string& name, const std::string& out, int frames) {
  const fs::path path = dir.path() / name;
  WriteBytes(path, R"({"kestrion": 1, "range": [1, )" + std::to_string(frames) + R"(], "tools": {
    "Loader1": {"class": "Loader", "inputs": {"Filename": "plate.png"}},
    "Gain1": {"class": "ColorGain", "inputs": {"Image": "Loader1", "Gain Red": {"keys": [[1, 0.5], [20, 1.5]]}}},
    "Saver1": {"class": "Saver", "inputs": {"Filename": ")" + out + R"(", "Image": "Gain1"}}}})");
  return path;
}

// SIGKILL at 100 random moments of 1080p renders (two at a time, every other run resuming):
// whatever a killed render left under a final frame name is the whole frame, byte for byte as a
// render that was never stopped writes it. The next render removes the temporary files that
// killed ones left, and --resume completes the set with the same bytes.
TEST_F(RenderCommandTest, KilledRendersLeaveOnlyWholeFrames) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "100 renders of 1080p frames take too long under a sanitizer; the plain build runs them";
#else
  WritePlate(dir_.path() / "plate.png");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(Render(WriteGradeFlow(dir_, "reference.json", "ref/frame.####.png", 3)).status, 0);
  const auto whole_render = std::chrono::steady_clock::now() - start;
  const std::map<std::string, std::string> frames = FilesIn(dir_, "ref");
  ASSERT_EQ(frames.size(), 3u);

  const auto kill_repeatedly = [&](int lane) {
    const std::string out = "out" + std::to_string(lane);
    const fs::path flow = WriteGradeFlow(dir_, out + ".json", out + "/frame.####.png", 3);
    std::mt19937 random(1080 + lane);
    for (int run = 0; run < 50; ++run) {
      std::vector<std::string> args{"render", flow.string()};
      if (run % 2) args.push_back("--resume");
      const pid_t pid = Start(args, out);
      std::this_thread::sleep_for(whole_render * std::uniform_real_distribution<double>(0.0, 1.0)(random));
      ::kill(pid, SIGKILL);
      int wait_status = 0;
      ::waitpid(pid, &wait_status, 0);
      for (const auto& [name, bytes] : FilesIn(dir_, out))
        EXPECT_TRUE(name[0] == '.' || (frames.count(name) && bytes == frames.at(name)))
            << "run " << run << " left " << out << "/" << name << " incomplete";
    }
    int last = 0;
    ::waitpid(Start({"render", flow.string(), "--resume"}, out + "-last"), &last, 0);
    EXPECT_EQ(StatusOf(last), 0) << ReadBytes(dir_ / (out + "-last.err"));
    EXPECT_TRUE(FilesIn(dir_, out) == frames) << "after resuming, " << out << " holds other files";
  };
  std::thread other(kill_repeatedly, 1);
  kill_repeatedly(0);
  other.join();
#endif
}

// A disk that fills up (a small tmpfs) ends the render with status 75, naming the frame; the
// frames written before are whole, and nothing partial or temporary is left.
TEST_F(RenderCommandTest, AFullDiskGivesStatus75AndNoPartialFrame) {
  const fs::path small = dir_.path() / "small";
  fs::create_directories(small);
  if (::mount("kestrion-test", small.c_str(), "tmpfs", 0, "size=1200k") != 0)
    GTEST_SKIP() << "mounting a small tmpfs is not permitted here (" << std::strerror(errno)
                 << "; it needs root), so the full-disk case is not tested";
  struct Unmount {
    const fs::path& at;
    ~Unmount() { ::umount2(at.c_str(), MNT_DETACH); }
  } unmount{small};
  WritePlate(dir_.path() / "plate.png");
  const auto runs = RunAll({{"render", WriteGradeFlow(dir_, "ref.json", "ref/frame.####.png", 6).string()},
                            {"render", WriteGradeFlow(dir_, "full.json", "small/frame.####.png", 6).string()}});
  ASSERT_EQ(runs[0].status, 0) << runs[0].err;
  EXPECT_EQ(runs[1].status, 75) << runs[1].err;
  EXPECT_TRUE(Contains(runs[1].err, "No space left on device")) << runs[1].err;
  const auto written = FilesIn(dir_, "small"), frames = FilesIn(dir_, "ref");
  EXPECT_LT(written.size(), frames.size());
  for (const auto& [name, bytes] : written) {
    ASSERT_TRUE(frames.count(name)) << "left behind: " << name;
    EXPECT_TRUE(bytes == frames.at(name)) << name << " differs " << bytes.size() << " " << frames.at(name).size();
  }
}

}  // namespace
