#include "host/clip/clip.h"

#include <fcntl.h>
#include <unistd.h>

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/archive.h"
#include "host/base/failure.h"
#include "host/clip/png_read.h"
#include "host/graph/request.h"

namespace fs = std::filesystem;
using OIIO::ImageInput;
using OIIO::ImageOutput;
using OIIO::ImageSpec;
using OIIO::TypeDesc;

namespace kestrion {

namespace {

std::mutex g_compression_lock;
std::map<std::string, int>& CompressionTable() {
  static std::map<std::string, int> table{{"png", 1}};
  return table;
}

struct RegisterClipType {
  RegisterClipType() { RegisterParameterType(vtype::Clip, &ClipParameter::Load); }
} register_clip_type;

// An extension in lower case without its dot, with the long and short spellings of one format
// made one ("jpeg" is "jpg", "tif" is "tiff").
std::string FormatKey(const std::string& extension) {
  std::string key = extension;
  for (char& c : key) c = char(std::tolower(uint8_t(c)));
  if (!key.empty() && key[0] == '.') key.erase(0, 1);
  if (key == "jpeg") return "jpg";
  if (key == "tif") return "tiff";
  return key;
}

bool AllDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (c < '0' || c > '9') return false;
  return true;
}

std::atomic<unsigned> g_temp_counter{0};

// The folder of the flow file being loaded or saved on this thread, while a ClipFolderScope is
// open.
thread_local const std::string* t_flow_folder = nullptr;

void KeepCodecsOnCallingThreadUnderTsan() {
#if defined(__SANITIZE_THREAD__)
  static const bool configured = (KeepCodecsOnCallingThread(), true);
  (void)configured;
#endif
}

// Writes `path` by way of a temporary file in the same folder; fsyncs the file and the folder.
bool WriteAtomically(const std::string& path, const ImageSpec& layout, const std::vector<uint8_t>& pixels,
                     std::string* error, bool* temporary) {
  const fs::path target(path);
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  std::error_code ec;
  fs::create_directories(folder, ec);
  std::string temp_name(".");
  temp_name.append(target.filename().string()).append(".tmp-").append(std::to_string(getpid()));
  temp_name.append("-").append(std::to_string(g_temp_counter.fetch_add(1)));
  const std::string temp = (folder / temp_name).string();
  auto out = ImageOutput::create(path);
  if (!out) {
    *error = "cannot write '" + path + "': no image format for its extension";
    *temporary = false;
    return false;
  }
  // The codec encodes into memory and the file is written here, so that every failed write (a
  // full disk) is seen; a format that can only write files of its own writes the temporary file.
  std::vector<unsigned char> encoded;
  OIIO::Filesystem::IOVecOutput memory(encoded);
  OIIO::Filesystem::IOProxy* proxy = &memory;
  ImageSpec written = layout;
  const bool in_memory = out->supports("ioproxy");
  if (in_memory) written.attribute("oiio:ioproxy", TypeDesc::PTR, &proxy);
  errno = 0;
  bool ok = out->open(temp, written) && out->write_image(TypeDesc::UINT8, pixels.data()) && out->close();
  const int saved_errno = errno;
  if (!ok) {
    std::string why = out->geterror();
    if (why.empty()) why = std::strerror(saved_errno ? saved_errno : EIO);
    // The codec names the temporary file; the user knows the frame by its final name.
    for (size_t at; (at = why.find(temp)) != std::string::npos;) why.replace(at, temp.size(), path);
    if (saved_errno != 0 && why.find(std::strerror(saved_errno)) == std::string::npos)
      why += std::string(" (") + std::strerror(saved_errno) + ")";
    *error = "cannot write '" + path + "': " + why;
    *temporary = IsTemporaryErrno(saved_errno);
    out.reset();
    ::unlink(temp.c_str());
    return false;
  }
  out.reset();
  const auto sync = [](const std::string& p, int flags) {
    const int fd = ::open(p.c_str(), flags | O_CLOEXEC);
    if (fd < 0) return errno;
    int err = ::fsync(fd) == 0 ? 0 : errno;
    if (::close(fd) != 0 && err == 0) err = errno;
    return err;
  };
  int err = in_memory ? WriteSyncedFile(temp, encoded.data(), encoded.size()) : sync(temp, O_RDONLY);
  if (err == 0 && std::rename(temp.c_str(), path.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(temp.c_str());
    *error = "cannot write '" + path + "': " + std::strerror(err);
    *temporary = IsTemporaryErrno(err);
    return false;
  }
  err = sync(folder.string(), O_RDONLY | O_DIRECTORY);
  if (err != 0) {
    *error = "cannot write '" + path + "': " + std::strerror(err);
    *temporary = IsTemporaryErrno(err);
    return false;
  }
  return true;
}

// The sizes of the OpenEXR attribute types that OpenEXR reads a fixed number of bytes of,
// whatever size the header gives.
constexpr std::pair<std::string_view, size_t> kExrFixedSizes[] = {
    {"box2i", 16}, {"box2f", 16}, {"compression", 1}, {"lineOrder", 1}, {"envmap", 1}, {"deepImageState", 1},
    {"float", 4},  {"double", 8}, {"int", 4},         {"rational", 8},  {"v2i", 8},    {"v2f", 8},
    {"v2d", 16},   {"v3i", 12},   {"v3f", 12},        {"v3d", 24},      {"m33f", 36},  {"m33d", 72},
    {"m44f", 64},  {"m44d", 128}, {"tiledesc", 9},    {"timecode", 8},  {"keycode", 28}, {"chromaticities", 32},
};

// Whether an OpenEXR attribute's value holds exactly what OpenEXR will read of it: a fixed-size
// type's bytes, a channel list's entries (names of at most `longest` bytes), a preview's pixels,
// a string vector's strings.
bool ExrValueFits(const std::string& type, const std::vector<uint8_t>& v, size_t longest) {
  const auto word = [&v](size_t at) {
    return int64_t(int32_t(uint32_t(v[at]) | uint32_t(v[at + 1]) << 8 | uint32_t(v[at + 2]) << 16 |
                           uint32_t(v[at + 3]) << 24));
  };
  for (const auto& [name, bytes] : kExrFixedSizes)
    if (type == name) return v.size() == bytes;
  if (type == "chlist") {
    size_t at = 0;
    while (at < v.size() && v[at] != 0) {
      const auto end = std::find(v.begin() + long(at), v.end(), 0);
      if (end == v.end() || size_t(end - v.begin()) - at > longest) return false;
      at = size_t(end - v.begin()) + 1 + 16;  // type, linear flag, three reserved bytes, sampling
    }
    return at + 1 == v.size();
  }
  if (type == "preview") {
    if (v.size() < 8 || (v.size() - 8) % 4 != 0) return false;
    return uint64_t(uint32_t(word(0))) * uint32_t(word(4)) == (v.size() - 8) / 4;
  }
  if (type == "stringvector") {
    for (size_t at = 0; at < v.size();) {
      if (v.size() - at < 4 || word(at) < 0 || word(at) > int64_t(v.size() - at - 4)) return false;
      at += 4 + size_t(word(at));
    }
  }
  return true;
}

// OpenEXR takes the sizes in a header on trust, and would set aside what a damaged one claims.
// So an OpenEXR file's headers are walked first, as OpenEXR will read them: every attribute must
// fit in the file and hold what its type holds, and every data window must be within the image
// size limit. Returns why the file cannot be read, or nothing (also for a file of another format).
std::string CheckExrHeader(std::FILE* file) {
  uint8_t start[8];
  const bool exr = std::fread(start, 1, 8, file) == 8 && start[0] == 0x76 && start[1] == 0x2F &&
                   start[2] == 0x31 && start[3] == 0x01;
  std::fseek(file, 0, SEEK_END);
  const long size = std::ftell(file);
  std::fseek(file, 8, SEEK_SET);
  std::string problem;
  // Names and type names end with a NUL within 31 bytes (255 with the long-names flag); OpenEXR
  // would read a longer one as two, so a header that holds one is refused here.
  const size_t longest = start[5] & 0x04 ? 255 : 31;
  const auto read_name = [&](std::string& name) {
    for (int c; (c = std::fgetc(file)) != 0;) {
      if (c == EOF || name.size() >= longest) return false;
      name += char(c);
    }
    return true;
  };
  const bool multipart = start[5] & 0x10;
  while (exr && problem.empty()) {
    for (;;) {
      std::string name, type;
      if (!read_name(name)) problem = "its header is cut off or damaged";
      if (!problem.empty() || name.empty()) break;
      uint8_t word[4];
      if (!read_name(type) || std::fread(word, 1, 4, file) != 4) problem = "its header is cut off or damaged";
      const int64_t bytes =
          int32_t(uint32_t(word[0]) | uint32_t(word[1]) << 8 | uint32_t(word[2]) << 16 | uint32_t(word[3]) << 24);
      if (problem.empty() && (bytes < 0 || bytes > size - std::ftell(file)))
        problem = "its header is damaged: the attribute \"" + name + "\" claims " + std::to_string(bytes) +
                  " bytes, more than the file holds";
      if (!problem.empty()) break;
      std::vector<uint8_t> value(static_cast<size_t>(bytes));
      if (std::fread(value.data(), 1, value.size(), file) != value.size() || !ExrValueFits(type, value, longest)) {
        problem = "its header is damaged: the attribute \"" + name + "\" does not hold a " + type;
        break;
      }
      if (name == "dataWindow" && type == "box2i") {
        int32_t box[4];
        std::memcpy(box, value.data(), sizeof box);
        const int64_t width = int64_t(box[2]) - box[0] + 1, height = int64_t(box[3]) - box[1] + 1;
        if (width <= 0 || height <= 0 || uint64_t(width) * uint64_t(height) * 4 > Image::SizeLimit()) {
          problem = "its size " + std::to_string(width) + " x " + std::to_string(height) +
                    " is not possible within the image size limit of " + std::to_string(Image::SizeLimit()) + " bytes";
          break;
        }
      }
    }
    // A multi-part file's headers end with an empty one.
    if (!multipart || !problem.empty()) break;
    const int next = std::fgetc(file);
    if (next == 0 || next == EOF) break;
    std::ungetc(next, file);
  }
  std::rewind(file);
  return problem;
}

// The first line of a codec library's error text (the rest repeats it in other words).
std::string FirstLine(const std::string& text) {
  const std::string line = text.substr(0, text.find('\n'));
  return line.empty() ? std::string("it is damaged") : line;
}

// Reads a frame of any format but PNG through the codec library, a band of rows at a time,
// straight into a new image (one reference, the caller's); the size is checked from the header
// before any pixel memory is taken. Null with the reason in `why`.
Image* ReadWithCodecLibrary(const std::string& path, std::string* why) {
  ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  ImageSpec layout;  // the file's size, channels and metadata
  auto in = ImageInput::create(path);
  if (!in || !in->open(path, layout, config)) {
    *why = FirstLine(in ? in->geterror() : OIIO::geterror());
    return nullptr;
  }
  if (layout.width <= 0 || layout.height <= 0 || layout.nchannels <= 0 || layout.depth != 1) {
    *why = "its size " + std::to_string(layout.width) + " x " + std::to_string(layout.height) + " is not a frame";
    return nullptr;
  }
  Image* img;
  try {
    img = new Image(layout.width, layout.height, 32);
  } catch (const ImageSizeError& e) {
    *why = e.what();
    return nullptr;
  }
  // The file's own samples (every channel at its own depth) are read a band at a time; all of
  // them may take at most four times the image size limit (four float channels).
  if (layout.image_bytes(true) > 4 * uint64_t(Image::SizeLimit())) {
    *why = "its samples take " + std::to_string(layout.image_bytes(true)) +
           " bytes, more than the image size limit of " + std::to_string(Image::SizeLimit()) + " bytes allows";
    img->Recycle();
    return nullptr;
  }
  // Converting the samples, the codec library sets aside 256 of the file's rows whatever the rows
  // asked for; that buffer is held to the same bound.
  if (uint64_t(layout.scanline_bytes(true)) * 256 > 4 * uint64_t(Image::SizeLimit())) {
    *why = "its rows take " + std::to_string(layout.scanline_bytes(true)) +
           " bytes each, and the codec library converts 256 rows at a time: more than the image size limit of " +
           std::to_string(Image::SizeLimit()) + " bytes allows";
    img->Recycle();
    return nullptr;
  }
  // The first four channels are read: colour from the first three, or grey from the first.
  const int channels = std::min(layout.nchannels, 4);
  const int alpha = layout.alpha_channel >= 0 && layout.alpha_channel < 4 ? layout.alpha_channel
                    : channels == 2                                      ? 1
                    : channels == 4                                      ? 3
                                                                         : -1;
  const bool grey = channels <= 2;
  constexpr uint64_t kBandBytes = uint64_t(16) << 20;
  const uint64_t row_bytes = std::max<uint64_t>(layout.scanline_bytes(true), 1);
  const uint64_t rows_per_band = std::clamp<uint64_t>(kBandBytes / row_bytes, 1, 64);
  const int band = layout.tile_width > 0 ? std::max(layout.tile_height, 1) : int(rows_per_band);
  std::vector<uint8_t> rows(size_t(layout.width) * size_t(std::min(band, layout.height)) * size_t(channels));
  for (int top = 0; top < layout.height; top += band) {
    const int bottom = std::min(top + band, layout.height);
    const bool read = layout.tile_width > 0
                          ? in->read_tiles(0, 0, layout.x, layout.x + layout.width, layout.y + top, layout.y + bottom,
                                           layout.z, layout.z + 1, 0, channels, TypeDesc::UINT8, rows.data())
                          : in->read_scanlines(0, 0, layout.y + top, layout.y + bottom, layout.z, 0, channels,
                                               TypeDesc::UINT8, rows.data());
    if (!read) {
      *why = FirstLine(in->geterror());
      img->Recycle();
      return nullptr;
    }
    for (int y = top; y < bottom; ++y) {
      const uint8_t* src = rows.data() + size_t(y - top) * size_t(layout.width) * size_t(channels);
      uint32_t* row = img->Row(y);
      for (int x = 0; x < layout.width; ++x, src += channels) {
        const uint8_t r = src[0], g = grey ? src[0] : src[1], b = grey ? src[0] : src[2];
        const uint8_t a = alpha >= 0 ? src[alpha] : 255;
        row[x] = uint32_t(b) | uint32_t(g) << 8 | uint32_t(r) << 16 | uint32_t(a) << 24;
      }
    }
  }
  img->x_aspect = layout.get_float_attribute("PixelAspectRatio", 1.0f);
  return img;
}

}  // namespace

void KeepCodecsOnCallingThread() {
  OIIO::attribute("threads", 1);
  OIIO::attribute("exr_threads", -1);
  OIIO::attribute("tiff:multithread", 0);
}

ClipParameter::ClipParameter(std::string name, std::string base_folder)
    : name_(std::move(name)), base_folder_(std::move(base_folder)) {
  Parse();
  Scan();
}

Parameter* ClipParameter::Copy() const { return new ClipParameter(name_, base_folder_); }

void ClipParameter::Save(CArchive& ar) const {
  ar.WriteString(SavedName());
  ar.WriteString(t_flow_folder ? *t_flow_folder : base_folder_);
}

std::string ClipParameter::SavedName() const {
  if (!t_flow_folder || name_.empty() || fs::path(name_).is_absolute()) return name_;
  std::error_code ec;
  const fs::path from = fs::absolute(t_flow_folder->empty() ? "." : *t_flow_folder, ec).lexically_normal();
  const fs::path base = fs::absolute(base_folder_.empty() ? "." : base_folder_, ec).lexically_normal();
  if (ec || from == base) return name_;
  const fs::path target = (base / name_).lexically_normal();
  const fs::path relative = target.lexically_relative(from);
  return relative.empty() ? target.string() : relative.string();
}

Parameter* ClipParameter::Load(CArchive& ar) {
  std::string name = ar.ReadText();
  std::string base = ar.ReadText();
  if (t_flow_folder) base = *t_flow_folder;
  return new ClipParameter(std::move(name), std::move(base));
}

bool ClipParameter::Equals(const Parameter& other) const {
  auto* c = dynamic_cast<const ClipParameter*>(&other);
  return c && c->name_ == name_ && c->base_folder_ == base_folder_;
}

std::string ClipParameter::Path() const {
  if (name_.empty() || base_folder_.empty() || fs::path(name_).is_absolute()) return name_;
  return (fs::path(base_folder_) / name_).string();
}

// Splits the name into prefix, number width and suffix: "%04d" or "%d", a run of '#', or the
// digits just before the extension of one member of a sequence.
void ClipParameter::Parse() {
  const std::string path = Path();
  const size_t slash = path.rfind('/');
  const size_t file_start = slash == std::string::npos ? 0 : slash + 1;
  const size_t percent = path.find('%', file_start);
  if (percent != std::string::npos) {
    size_t i = percent + 1;
    int width = 0;
    for (; i < path.size() && path[i] >= '0' && path[i] <= '9'; ++i) width = std::min(width * 10 + (path[i] - '0'), 99);
    if (i < path.size() && path[i] == 'd' && width < 16) {
      prefix_ = path.substr(0, percent);
      suffix_ = path.substr(i + 1);
      width_ = std::max(width, 1);
      return;
    }
  }
  const size_t hash = path.find('#', file_start);
  if (hash != std::string::npos) {
    size_t end = hash;
    while (end < path.size() && path[end] == '#') ++end;
    prefix_ = path.substr(0, hash);
    suffix_ = path.substr(end);
    width_ = int(end - hash);
    return;
  }
  const size_t dot = path.rfind('.');
  const size_t stem_end = dot == std::string::npos || dot < file_start ? path.size() : dot;
  size_t digits = stem_end;
  while (digits > file_start && path[digits - 1] >= '0' && path[digits - 1] <= '9') --digits;
  if (digits < stem_end && stem_end - digits < 10) {
    prefix_ = path.substr(0, digits);
    suffix_ = path.substr(stem_end);
    width_ = int(stem_end - digits);
    return;
  }
  prefix_ = path;
  suffix_.clear();
  width_ = 0;
}

void ClipParameter::Scan() {
  first_ = 0;
  length_ = 0;
  if (name_.empty()) return;
  std::error_code ec;
  if (!IsSequence()) {
    length_ = fs::is_regular_file(prefix_, ec) ? 1 : 0;
    return;
  }
  // The part before the number is a folder of its own ("shots/####.png") or a folder and the
  // start of the file names ("shots/take.####.png", "take.####.png").
  const fs::path pattern(prefix_);
  const bool folder_only = prefix_.empty() || prefix_.back() == '/';
  const fs::path folder = folder_only ? fs::path(prefix_.empty() ? "." : prefix_)
                                      : (pattern.has_parent_path() ? pattern.parent_path() : ".");
  const std::string head = folder_only ? std::string() : pattern.filename().string();
  int lowest = INT_MAX, highest = INT_MIN;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    const std::string file = entry.path().filename().string();
    if (file.size() <= head.size() + suffix_.size() || file.compare(0, head.size(), head) != 0 ||
        file.compare(file.size() - suffix_.size(), suffix_.size(), suffix_) != 0)
      continue;
    const std::string digits = file.substr(head.size(), file.size() - head.size() - suffix_.size());
    // Numbers are padded to the pattern's width; wider ones are written in full.
    if (!AllDigits(digits) || digits.size() > 9 || int(digits.size()) < width_ ||
        (int(digits.size()) > width_ && digits[0] == '0'))
      continue;
    const int n = std::stoi(digits);
    lowest = std::min(lowest, n);
    highest = std::max(highest, n);
  }
  if (lowest <= highest) {
    first_ = lowest;
    length_ = highest - lowest + 1;
  }
}

std::string ClipParameter::FramePath(int number) const {
  if (!IsSequence()) return prefix_;
  std::string digits = std::to_string(number < 0 ? -number : number);
  if (int(digits.size()) < width_) digits.insert(0, size_t(width_) - digits.size(), '0');
  return prefix_ + (number < 0 ? "-" : "") + digits + suffix_;
}

void ClipParameter::BeginUse() { Scan(); }
void ClipParameter::EndUse() {}

Image* ClipParameter::ReadFrame(int frame, Request* req, TagList* tags) {
  KeepCodecsOnCallingThreadUnderTsan();
  if (tags) {
    auto* abort = static_cast<const std::atomic<int32_t>*>(tags->GetPointer(cliptag::AbortFlag));
    if (abort && abort->load()) return nullptr;
  }
  const std::string path = FramePath(IsSequence() ? first_ + frame : 0);
  std::string why;
  Image* img = nullptr;
  bool missing = false;
  if (std::FILE* file = std::fopen(path.c_str(), "rb")) {
    if (IsPngFile(file))
      img = ReadPng(file, &why);
    else if ((why = CheckExrHeader(file)).empty())
      img = ReadWithCodecLibrary(path, &why);
    std::fclose(file);
  } else {
    missing = errno == ENOENT;
    why = missing ? std::string("no such file") : std::strerror(errno);
  }
  if (!img) {
    // A file that is not there may be on its way (a sequence still being copied, a network
    // share that dropped out for a moment): the same render may succeed later.
    NoteFailure("cannot read '" + path + "': " + why, missing);
    return nullptr;
  }
  if (req) req->Own(img);
  return img;
}

uint32_t ClipParameter::WriteFrame(int number, Image* img, TagList* tags) {
  KeepCodecsOnCallingThreadUnderTsan();
  const std::string path = FramePath(number);
  if (!img || (img->Depth() != 32 && img->Depth() != 8) || img->Width() <= 0 || img->Height() <= 0) {
    last_error_ = "cannot write '" + path + "': the frame is empty";
    NoteFailure(last_error_, false);
    return 0;
  }
  // A mask is written as one grey channel, a frame as red, green, blue and alpha.
  const bool mask = img->Depth() == 8;
  const int channels = mask ? 1 : 4;
  const std::string ext = FormatKey(fs::path(path).extension().string());
  ImageSpec layout(img->Width(), img->Height(), channels, ext == "exr" ? TypeDesc::HALF : TypeDesc::UINT8);
  if (!mask) {
    layout.alpha_channel = 3;
    layout.attribute("oiio:UnassociatedAlpha", 1);
  }
  if (img->x_aspect != 1.0f || img->y_aspect != 1.0f)
    layout.attribute("PixelAspectRatio", img->x_aspect / (img->y_aspect == 0.0f ? 1.0f : img->y_aspect));
  int level = -1;
  {
    std::lock_guard<std::mutex> hold(g_compression_lock);
    auto it = CompressionTable().find(ext);
    if (it != CompressionTable().end()) level = it->second;
  }
  if (ext == "png") layout.attribute("png:compressionLevel", level >= 0 ? level : 1);
  if (ext == "jpg" && level >= 0) layout.attribute("CompressionQuality", level);
  if (ext == "exr") layout.attribute("compression", level == 0 ? "none" : "zips");
  if (ext == "tiff" && level >= 0) layout.attribute("compression", level == 0 ? "none" : "zip");
  const size_t row_bytes = size_t(img->Width()) * size_t(channels);
  std::vector<uint8_t> pixels(row_bytes * size_t(img->Height()));
  for (int y = 0; y < img->Height(); ++y) {
    uint8_t* dst = pixels.data() + size_t(y) * row_bytes;
    if (mask) {
      std::memcpy(dst, img->MaskRow(y), row_bytes);
      continue;
    }
    const uint32_t* row = img->Row(y);
    for (int x = 0; x < img->Width(); ++x, dst += 4) {
      const uint32_t p = row[x];
      dst[0] = uint8_t(p >> 16);
      dst[1] = uint8_t(p >> 8);
      dst[2] = uint8_t(p);
      dst[3] = uint8_t(p >> 24);
    }
  }
  if (auto* writer = tags ? static_cast<FrameWriter*>(const_cast<void*>(tags->GetPointer(cliptag::Writer))) : nullptr) {
    writer->Queue([path, layout, pixels = std::move(pixels)]() -> std::optional<Failure> {
      Failure failure;
      if (WriteAtomically(path, layout, pixels, &failure.message, &failure.temporary)) return std::nullopt;
      return failure;
    });
    return 1;
  }
  std::string error;
  bool temporary = false;
  if (!WriteAtomically(path, layout, pixels, &error, &temporary)) {
    last_error_ = error;
    NoteFailure(error, temporary);
    return 0;
  }
  last_error_.clear();
  return 1;
}

FrameWriter::FrameWriter() : thread_([this] { Run(); }) {}

FrameWriter::~FrameWriter() {
  {
    std::lock_guard<std::mutex> hold(lock_);
    closing_ = true;
    waiting_.clear();
  }
  changed_.notify_all();
  thread_.join();
}

uint64_t FrameWriter::Queue(Write write) {
  std::unique_lock<std::mutex> hold(lock_);
  changed_.wait(hold, [this] { return waiting_.size() < kDepth || failure_; });
  const uint64_t ticket = ++queued_;
  if (failure_)
    finished_ = ticket;
  else
    waiting_.emplace_back(ticket, std::move(write));
  hold.unlock();
  changed_.notify_all();
  return ticket;
}

uint64_t FrameWriter::Queued() const {
  std::lock_guard<std::mutex> hold(lock_);
  return queued_;
}

std::optional<Failure> FrameWriter::Wait(uint64_t ticket) {
  std::unique_lock<std::mutex> hold(lock_);
  changed_.wait(hold, [&] { return finished_ >= ticket; });
  if (failure_ && failed_ticket_ <= ticket) return failure_;
  return std::nullopt;
}

void FrameWriter::ClearFailure() {
  std::lock_guard<std::mutex> hold(lock_);
  failure_.reset();
  failed_ticket_ = 0;
}

void FrameWriter::Run() {
  std::unique_lock<std::mutex> hold(lock_);
  for (;;) {
    changed_.wait(hold, [this] { return closing_ || !waiting_.empty(); });
    if (closing_) return;
    auto [ticket, write] = std::move(waiting_.front());
    waiting_.pop_front();
    changed_.notify_all();  // room for another write
    hold.unlock();
    std::optional<Failure> failure = write();
    write = nullptr;  // the pixels go before the lock is taken again
    hold.lock();
    finished_ = ticket;
    if (failure) {
      failure_ = std::move(failure);
      failed_ticket_ = ticket;
      waiting_.clear();
      finished_ = queued_;
    }
    changed_.notify_all();
  }
}

ClipFolderScope::ClipFolderScope(std::string folder) { t_flow_folder = new std::string(std::move(folder)); }
ClipFolderScope::~ClipFolderScope() {
  delete t_flow_folder;
  t_flow_folder = nullptr;
}

void ClipParameter::SetCompression(const std::string& extension, int level) {
  std::lock_guard<std::mutex> hold(g_compression_lock);
  CompressionTable()[FormatKey(extension)] = level;
}

bool ClipParameter::IsFormatKey(const std::string& extension) {
  const std::string name = !extension.empty() && extension[0] == '.' ? extension.substr(1) : extension;
  return !name.empty() && name.size() <= 15 && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  });
}

void ClipParameter::SetCompression(std::map<std::string, int> table) {
  std::lock_guard<std::mutex> hold(g_compression_lock);
  CompressionTable() = std::move(table);
}

std::map<std::string, int> ClipParameter::Compression() {
  std::lock_guard<std::mutex> hold(g_compression_lock);
  return CompressionTable();
}

}  // namespace kestrion
