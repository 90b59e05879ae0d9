// Clips on disk: the value behind a Loader's or Saver's "Filename". A clip name is one image
// file, or a numbered sequence written as plate.####.png, plate.%04d.png or one member such as
// plate.0042.png. A sequence's frames are the numbers present on disk, first to last; clip
// frame f is the file numbered first + f. Frames are read into BGRA images (alpha 255 where a
// file has none, no premultiplication, no colour conversion) and written by extension (a mask
// as one grey channel), atomically: a temporary file in the same folder, fsync, rename, fsync
// of the folder.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "host/base/failure.h"
#include "host/image/image.h"
#include "host/graph/parameter.h"

namespace kestrion {

class Request;

// Tags that tools pass to a frame read (ReadFrame) and a frame write (WriteFrame). Files on
// disk read and write the same whatever the field and size settings say (they matter to
// device clips); the abort flag ends a read early; a write given a frame writer is queued on it.
namespace cliptag {
constexpr uint32_t FieldSetting = 0x10000068;  // read
constexpr uint32_t SizeSetting = 0x10000069;   // read
constexpr uint32_t AbortFlag = 0x1000006a;  // pointer to the reading operator's abort flag
constexpr uint32_t Preview = 0x1000006b;    // a preview write
constexpr uint32_t Writer = 0x1000006c;     // pointer to the FrameWriter that does the write
}  // namespace cliptag

// Writes frames on one background thread, in the order they were queued, so that encoding one
// frame overlaps rendering the next. A queued write owns its pixels. At most two writes wait
// (more wait for room); after a write fails, those queued behind it are dropped unwritten.
class FrameWriter {
 public:
  // A write: nothing when it succeeded, or why it failed.
  using Write = std::function<std::optional<Failure>()>;

  FrameWriter();
  // Drops the writes not yet begun and waits for the one in progress.
  ~FrameWriter();
  FrameWriter(const FrameWriter&) = delete;
  FrameWriter& operator=(const FrameWriter&) = delete;

  // Queues a write (dropping it at once after a failure); returns its ticket, the number of
  // writes queued so far.
  uint64_t Queue(Write write);
  uint64_t Queued() const;
  // Waits until every write up to a ticket is done or dropped; the failure among them, if any.
  std::optional<Failure> Wait(uint64_t ticket);
  // Forgets a failure once it has been told, so that the writes queued after it go ahead (a
  // render that goes on past a failed frame).
  void ClearFailure();

 private:
  void Run();

  static constexpr size_t kDepth = 2;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::deque<std::pair<uint64_t, Write>> waiting_;
  uint64_t queued_ = 0, finished_ = 0;  // tickets up to finished_ are done or dropped
  std::optional<Failure> failure_;
  uint64_t failed_ticket_ = 0;
  bool closing_ = false;
  std::thread thread_;
};

// Makes the codec library decode and encode on the calling thread (no worker threads of its
// own). ThreadSanitizer cannot follow that library's workers (it is not instrumented), so the
// clip layer calls this under it, and so do tests that read frames with the library directly.
void KeepCodecsOnCallingThread();

class ClipParameter final : public Parameter {
 public:
  // A relative name is taken from `base_folder` (the folder of the flow that holds it).
  explicit ClipParameter(std::string name, std::string base_folder = {});

  uint32_t Type() const override { return vtype::Clip; }
  Parameter* Copy() const override;
  void Save(CArchive& ar) const override;
  bool Equals(const Parameter& other) const override;
  static Parameter* Load(CArchive& ar);

  const std::string& Name() const { return name_; }
  const std::string& BaseFolder() const { return base_folder_; }
  // The name as a flow file being saved holds it: inside a ClipFolderScope a relative name is
  // made relative to that folder (absolute where no relative path leads there), so the saved
  // flow still finds the same files.
  std::string SavedName() const;
  // The name with a relative path resolved.
  std::string Path() const;
  bool IsSequence() const { return width_ > 0; }
  // Frames on disk (1 for a single file that exists, 0 when nothing is there).
  int Length() const { return length_; }
  int FirstNumber() const { return first_; }
  // The file of frame number n (padded to the pattern's width; wider numbers in full).
  std::string FramePath(int number) const;

  // Reads clip frame f (0 <= f < Length) into a new image that the request owns; null when it
  // cannot be read (the reason goes to NoteFailure).
  Image* ReadFrame(int frame, Request* req, TagList* tags);
  // Writes an image (a mask as one channel) as frame number n; 0 on failure (the reason goes to NoteFailure and
  // LastError). Never leaves a partial or temporary file behind. With a cliptag::Writer the
  // pixels are copied and the write queued on that writer, which reports its outcome.
  uint32_t WriteFrame(int number, Image* img, TagList* tags);
  const std::string& LastError() const { return last_error_; }

  // Begin-use looks at the disk again (a render may have added frames); end-use does nothing.
  void BeginUse();
  void EndUse();

  // Codec settings of writes, by format ("png": zlib level, "jpg": quality); an extension may
  // be given in any case, with its dot, and in its long or short spelling ("tif", "tiff").
  static void SetCompression(const std::string& extension, int level);
  // Whether a text can name a format there: "png", "EXR" or ".tif" (letters and digits, 15 at
  // most, after an optional dot).
  static bool IsFormatKey(const std::string& extension);
  static std::map<std::string, int> Compression();
  // Puts back a whole table that Compression() gave.
  static void SetCompression(std::map<std::string, int> table);

 private:
  void Parse();
  void Scan();

  std::string name_;
  std::string base_folder_;
  std::string prefix_, suffix_;  // a sequence's file names are prefix + number + suffix
  int width_ = 0;                // digits of the number; 0 for a single file
  int first_ = 0;
  int length_ = 0;
  std::string last_error_;
};

// While a flow file loads, the relative clip names in it are taken from the folder of its file
// (not the folder it was saved from); while one is saved, they are written relative to the
// folder of the new file. One scope at a time per thread.
class ClipFolderScope {
 public:
  explicit ClipFolderScope(std::string folder);
  ~ClipFolderScope();
  ClipFolderScope(const ClipFolderScope&) = delete;
  ClipFolderScope& operator=(const ClipFolderScope&) = delete;
};

}  // namespace kestrion
