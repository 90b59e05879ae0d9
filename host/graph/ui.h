// Stand-ins for the user-interface side of the host: the drawing surface that preview
// controls draw on, preview and control records, messages, and the panel and window handles
// that operators receive. A headless host passes these through; previews fill them in.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrion {

class Operator;
class Input;

struct CPoint {
  int x = 0, y = 0;
  bool operator==(const CPoint&) const = default;
};

struct CRect {
  int left = 0, top = 0, right = 0, bottom = 0;
  int Width() const { return right - left; }
  int Height() const { return bottom - top; }
  bool operator==(const CRect&) const = default;
};

// What preview controls draw on (the device context of a preview window).
class DrawSurface {
 public:
  virtual ~DrawSurface() = default;
};

// How a preview maps the image into its window.
struct PreviewInfo {
  CRect image_rect;    // where the image lies in the window, in window pixels
  int image_width = 0;
  int image_height = 0;
  double scale = 1.0;  // window pixels per image pixel
};

// One on-screen control of an operator in a preview.
class OperatorControl {
 public:
  OperatorControl(Operator* op, uint32_t kind, uint32_t flags) : owner(op), kind(kind), flags(flags) {}
  Operator* owner;
  uint32_t kind;
  uint32_t flags;
  int position = 0;
};

// A preview window that operators attach controls to.
class PreviewView {
 public:
  std::vector<OperatorControl*> controls;
};

// Context-menu stand-in: entries appended in order, each with its command id, and the text of
// the submenu that holds it (empty for the menu itself).
struct PopupMenu {
  struct Entry {
    uint32_t command;
    std::string text;
    std::string submenu;
  };
  std::vector<Entry> entries;
  void Append(uint32_t command, std::string text, std::string submenu = {}) {
    entries.push_back({command, std::move(text), std::move(submenu)});
  }
  // The command of the entry with this text (in this submenu); 0 when there is none.
  uint32_t Command(const std::string& text, const std::string& submenu = {}) const {
    for (const Entry& e : entries)
      if (e.text == text && e.submenu == submenu) return e.command;
    return 0;
  }
};

// Key-state stand-in: which modifier keys are held while a control is dragged.
struct KeyState {
  bool shift = false;
  bool control = false;
  bool alt = false;
};

// A small picture for a tool's tile in the flow view, held as BGRA words row by row. Tools
// load theirs once for all instances from the module's resources.
class ResBitmap {
 public:
  bool Loaded() const { return !pixels_.empty(); }
  // Takes a picture of width x height words; false (and nothing loaded) when the size is wrong.
  bool Load(int width, int height, std::vector<uint32_t> pixels) {
    if (width <= 0 || height <= 0 || pixels.size() != size_t(width) * size_t(height)) return false;
    width_ = width;
    height_ = height;
    pixels_ = std::move(pixels);
    return true;
  }
  int Width() const { return width_; }
  int Height() const { return height_; }
  const std::vector<uint32_t>& Pixels() const { return pixels_; }

 private:
  int width_ = 0, height_ = 0;
  std::vector<uint32_t> pixels_;
};

// Host message records and windows that only the interactive host fills in.
struct Message {
  uint32_t code = 0;
};
class FrameWriter;
struct RenderMessage {
  double start = 0.0, end = 0.0, step = 1.0;
  // Where savers queue their frame writes; none: they write each frame before going on.
  FrameWriter* writer = nullptr;
};
class ControlWnd;
class CChildFrame;

// The sides of a tool's tile in the flow view.
enum class PossibleSides { Left, Top, Right, Bottom };

}  // namespace kestrion
