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
};

struct CRect {
  int left = 0, top = 0, right = 0, bottom = 0;
  int Width() const { return right - left; }
  int Height() const { return bottom - top; }
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

// Context-menu stand-in: entries appended in order, each with its command id.
struct PopupMenu {
  struct Entry {
    uint32_t command;
    std::string text;
  };
  std::vector<Entry> entries;
  void Append(uint32_t command, std::string text) { entries.push_back({command, std::move(text)}); }
};

// Key-state stand-in: which modifier keys are held while a control is dragged.
struct KeyState {
  bool shift = false;
  bool control = false;
  bool alt = false;
};

// Host message records and windows that only the interactive host fills in.
struct Message {
  uint32_t code = 0;
};
struct RenderMessage {
  double start = 0.0, end = 0.0, step = 1.0;
};
class ControlWnd;
class CChildFrame;

// The sides of a tool's tile in the flow view.
enum class PossibleSides { Left, Top, Right, Bottom };

}  // namespace kestrion
