// The tools next to the nearest OpenCV operation (their partner) in the same process, on the
// same 1920 x 1080 BGRA frames, with 1 and 2 threads (the argument: the host's worker threads
// for a tool, cv::setNumThreads for its partner), and after the runs a table of the ratios
// tool Mpx/s / partner Mpx/s. A copy of the frame in row bands is the line to read them by.
// The tools take their output frames from the host's pool of pixel memory, which a render of
// frames of one size reuses; so the partners keep their output (and scratch) frames from run
// to run, and neither side pays for fresh pages. A pair is one entry of kPairs.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_tools.h"

namespace kestrion {
namespace {

using namespace bench;

// An image's pixels as a BGRA matrix (the host's words are B, G, R, A in memory).
cv::Mat AsMat(const Image& img) {
  cv::Mat mat(img.Height(), img.Width(), CV_8UC4);
  for (int y = 0; y < img.Height(); ++y) std::memcpy(mat.ptr(y), img.Row(y), size_t(img.Width()) * 4);
  return mat;
}

// `fg` over `bg` with fg's straight alpha, in integers, rows shared out among OpenCV's threads.
void Over(const cv::Mat& fg, const cv::Mat& bg, cv::Mat& out) {
  out.create(bg.size(), CV_8UC4);
  cv::parallel_for_(cv::Range(0, bg.rows), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y) {
      const uint8_t *f = fg.ptr(y), *b = bg.ptr(y);
      uint8_t* o = out.ptr(y);
      for (int x = 0; x < bg.cols * 4; x += 4) {
        const int a = f[x + 3], inv = 255 - a;
        for (int c = 0; c < 3; ++c) o[x + c] = uint8_t((f[x + c] * a + b[x + c] * inv) >> 8);
        o[x + 3] = uint8_t(a + ((b[x + 3] * inv) >> 8));
      }
    }
  });
}

using Partner = void (*)(const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat& scratch);

// The warps: Transform at 30 degrees and size 1.2, the positioners at their default corners,
// Resize to half size.
const ToolCase kTransformRotated{"Transform", {{"Size", 1.2}, {"Aspect", 1.0}, {"Angle", 30.0}}, false};
const ToolCase kCornerPin{"CornerPin", {}, false};
const ToolCase kPerspectivePin{"PerspectivePin", {}, false};
const ToolCase kResizeHalf{"Resize", {{"Width", kWidth / 2}, {"Height", kHeight / 2}}, false};

// The positioners' default corners, top left, top right, bottom left, bottom right, in pixels.
std::vector<cv::Point2f> DefaultCorners(const cv::Mat& frame) {
  const auto at = [&](float x, float y) { return cv::Point2f(x * float(frame.cols), y * float(frame.rows)); };
  return {at(0.1f, 0.1f), at(0.9f, 0.0f), at(0.0f, 0.7f), at(1.0f, 0.9f)};
}
std::vector<cv::Point2f> FrameCorners(const cv::Mat& frame) {
  const float w = float(frame.cols), h = float(frame.rows);
  return {{0, 0}, {w, 0}, {0, h}, {w, h}};
}

struct Pair {
  const char* tool_name;
  const ToolCase& tool;
  const char* partner_name;
  Partner partner;
};

const Pair kPairs[] = {
    {"BM_BooleansAdd", kBooleansAdd, "BM_CvAdd", [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::add(bg, fg, out); }},
    // The same operation without the blend, the work cv::add does.
    {"BM_BooleansAddUnblended", kBooleansAddUnblended, "BM_CvAdd",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::add(bg, fg, out); }},
    {"BM_BooleansAnd", kBooleansAnd, "BM_CvBitwiseAnd",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::bitwise_and(bg, fg, out); }},
    {"BM_DissolveDissolve", kDissolveDissolve, "BM_CvAddWeighted",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::addWeighted(bg, 0.6, fg, 0.4, 0.0, out); }},
    {"BM_ColorGain", kColorGain, "BM_CvLut",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       static const cv::Mat table = [] {
         cv::Mat t(1, 256, CV_8UC4);
         for (int i = 0; i < 256; ++i) t.at<cv::Vec4b>(i) = {uint8_t(255 - i), uint8_t(i / 2), uint8_t(i), uint8_t(i)};
         return t;
       }();
       cv::LUT(bg, table, out);
     }},
    {"BM_ColorSpaceToHLS", kColorSpaceToHLS, "BM_CvCvtColorToHLS",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::cvtColor(bg, out, cv::COLOR_BGR2HLS); }},
    {"BM_ColorSpaceToYUV", kColorSpaceToYUV, "BM_CvCvtColorToYUV",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::cvtColor(bg, out, cv::COLOR_BGR2YUV); }},
    {"BM_MergeStraight", kMergeStraight, "BM_PlainOver", [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { Over(fg, bg, out); }},
    {"BM_MergeRotated", kMergeRotated, "BM_CvWarpAffineOver",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat& turned) {
       const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(fg.cols / 2.0f, fg.rows / 2.0f), 30.0, 1.3);
       cv::warpAffine(fg, turned, turn, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
       Over(turned, bg, out);
     }},
    {"BM_TransformRotated", kTransformRotated, "BM_CvWarpAffine",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out) {
       const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(bg.cols / 2.0f, bg.rows / 2.0f), 30.0, 1.2);
       cv::warpAffine(bg, out, turn, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
     }},
    {"BM_CornerPin", kCornerPin, "BM_CvWarpPerspectiveOnto",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out) {
       const cv::Mat onto = cv::getPerspectiveTransform(FrameCorners(bg), DefaultCorners(bg));
       cv::warpPerspective(bg, out, onto, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
     }},
    {"BM_PerspectivePin", kPerspectivePin, "BM_CvWarpPerspectiveFrom",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out) {
       const cv::Mat from = cv::getPerspectiveTransform(DefaultCorners(bg), FrameCorners(bg));
       cv::warpPerspective(bg, out, from, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
     }},
    {"BM_ResizeHalf", kResizeHalf, "BM_CvResizeArea",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out) {
       cv::resize(bg, out, cv::Size(bg.cols / 2, bg.rows / 2), 0, 0, cv::INTER_AREA);
     }},
};

void RunPartner(benchmark::State& state, Partner partner) {
  static const cv::Mat bg = AsMat(*Background()), fg = AsMat(*Foreground());
  cv::setNumThreads(int(state.range(0)));
  cv::Mat out, scratch;
  for (auto _ : state) {
    partner(bg, fg, out, scratch);
    benchmark::DoNotOptimize(out.data);
  }
  CountMegapixels(state);
  state.counters["threads"] = cv::getNumThreads();
}

// Prints the runs as the console does and keeps each one's Mpx/s by name and argument: the
// median where repetitions give one (--benchmark_repetitions, for a busy machine).
class RatioTable : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const auto it = run.counters.find("Mpx/s");
      if (it == run.counters.end() || (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")) continue;
      rates_[{run.run_name.function_name, run.run_name.args}] = it->second.value;
    }
  }

  void Print() const {
    std::printf("\n%-24s %7s %9s  %-22s %9s %7s\n", "tool", "threads", "Mpx/s", "partner", "Mpx/s", "ratio");
    for (const Pair& pair : kPairs)
      for (const char* threads : {"1", "2"}) {
        const auto tool = rates_.find({pair.tool_name, threads}), partner = rates_.find({pair.partner_name, threads});
        if (tool == rates_.end() || partner == rates_.end()) continue;
        std::printf("%-24s %7s %9.1f  %-22s %9.1f %7.2f\n", pair.tool_name, threads, tool->second, pair.partner_name,
                    partner->second, tool->second / partner->second);
      }
    for (const char* threads : {"1", "2"})
      if (auto copy = rates_.find({"BM_Memcpy", threads}); copy != rates_.end())
        std::printf("%-24s %7s %9.1f\n", "memcpy", threads, copy->second);
  }

 private:
  std::map<std::pair<std::string, std::string>, double> rates_;
};

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) {
  using namespace kestrion;
  std::set<std::string> partners;  // a partner of two tools runs once
  for (const Pair& pair : kPairs) {
    benchmark::RegisterBenchmark(pair.tool_name, [&pair](benchmark::State& s) { bench::RunTool(s, pair.tool); })
        ->Arg(1)->Arg(2)->UseRealTime();
    if (!partners.insert(pair.partner_name).second) continue;
    benchmark::RegisterBenchmark(pair.partner_name, [&pair](benchmark::State& s) { RunPartner(s, pair.partner); })
        ->Arg(1)->Arg(2)->UseRealTime();
  }
  benchmark::RegisterBenchmark("BM_Memcpy", bench::BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
  RatioTable table;
  const int status = bench::RunWithToolModule(argc, argv, &table);
  if (status == 0) table.Print();
  return status;
}
