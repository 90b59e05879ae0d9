// Operators: the tools of a flow. An operator declares its inputs and outputs in panel order,
// turns the values of one Request into its outputs in Process, saves and loads its record,
// and may draw and handle controls in previews. The host implements every operation; tools
// override what they need.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/base/animation.h"
#include "host/base/object.h"
#include "host/graph/parameter.h"
#include "host/base/tags.h"
#include "host/graph/tool_owner.h"
#include "host/graph/ui.h"

namespace kestrion {

class CArchive;
class CPipelineDoc;
class Input;
class Operator;
class Output;
class Registry;
class Request;

// The time at which an input's value outside a render is read and set.
constexpr double kOutsideTime = -1000000000.0;
// Size of the buffers that GetTitle and ControlGetTip fill, terminator included.
constexpr size_t kTitleSize = 256;
// An operator time step of this value is unset and read as 1.0.
constexpr double kUnsetTimeStep = -1000000000.0;

// Request flags.
// Operator flags (Operator::op_flags).
namespace opflag {
constexpr uint32_t Restored = 0x1;  // built from a saved record rather than placed new
constexpr uint32_t Saver = 0x40;    // writes frames; a render renders every tool marked so
}  // namespace opflag

namespace rflag {
constexpr uint32_t Quick = 0x1;
constexpr uint32_t Proxy = 0x2;
constexpr uint32_t Interactive = 0x20000;
constexpr uint32_t Preview = 0x40000;
}  // namespace rflag

// The class id heading a record's end, written after a tool's own fields.
constexpr uint32_t kEndOfRecord = FourCC("EndC");

struct TimeExtent {
  double start = 0.0;
  double end = 0.0;
  bool operator==(const TimeExtent&) const = default;
};

// A connection from an output to an input.
struct Link {
  Output* from = nullptr;
  Input* to = nullptr;
};

// Tool data that undo and redo restore (SaveState / RestoreState).
class UndoState {
 public:
  virtual ~UndoState() = default;
};

// One field of a tool's own saved record, as text flows write it under the tool's "data": its
// name, how many doubles or 32-bit integers it holds, and the value a flow that leaves it out
// gives each of them.
struct DataField {
  enum Kind : uint8_t { Double, Int32 };
  const char* name;
  Kind kind;
  int count;
  double missing;
};

// Where an input's value comes from at a time.
enum class ValueSource { Constant, Animation, Link, Modifier };

// Everything that makes up an input's value, as undo records and restores it.
struct InputState {
  Ref<Parameter> constant;
  std::unique_ptr<Spline> animation;
  Output* link = nullptr;
  Ref<Operator> modifier;
  Output* modifier_output = nullptr;

  InputState() = default;
  InputState(const InputState& o);
  InputState& operator=(const InputState& o);
  InputState(InputState&&) noexcept = default;
  InputState& operator=(InputState&&) noexcept = default;
  ~InputState();
};

class Input {
 public:
  Input(Operator* owner, int index, std::string name, uint32_t type, uint32_t id, TagList tags);
  ~Input();

  const std::string& Name() const { return name_; }
  uint32_t Type() const { return type_; }
  uint32_t Id() const { return id_; }
  const TagList& Tags() const { return tags_; }
  Operator* Owner() const { return owner_; }
  int Index() const { return index_; }
  // Image and mask inputs tagged in::Required = 0 may stay unconnected.
  bool IsOptional() const;
  bool IsImage() const { return type_ == vtype::Image || type_ == vtype::Mask; }

  ValueSource Source() const;
  Parameter* Constant() const { return state_.constant.get(); }
  const Spline* Animation() const { return state_.animation.get(); }
  Output* Link() const { return state_.link; }
  Operator* Modifier() const { return state_.modifier.get(); }
  Output* ModifierOutput() const { return state_.modifier_output; }

  // The value at a time from the constant or the animation (not from links or modifiers):
  // a new reference, or null when the input has neither (an image input).
  Parameter* ValueAt(double time) const;
  // The value outside a render: the one at kOutsideTime.
  Parameter* CurrentValue() const { return ValueAt(kOutsideTime); }
  // The value at a time (outside a render unless given) as a T, or null when it is not one.
  template <class T>
  Ref<T> ValueAs(double time = kOutsideTime) const {
    Ref<Parameter> v = Ref<Parameter>::Adopt(ValueAt(time));
    return Ref<T>::Share(dynamic_cast<T*>(v.get()));
  }

  // Sets the value at a time, taking over the caller's reference. Numbers are held to the
  // lowest and highest values the input allows. On an animated input this sets a key at that
  // time; at kOutsideTime it replaces the animation with the constant.
  void SetValue(Parameter* value, double time = kOutsideTime);
  // Keys a number or point at a time, animating an input that is not animated yet (with its
  // default curve and this key alone). Numbers are held to the input's limits.
  void SetKey(Parameter* value, double time);
  void SetAnimation(const Spline& spline);
  void ClearAnimation();
  // Connects the input to an output of another tool (null disconnects).
  void ConnectTo(Output* from);
  // Attaches a modifier whose output `from` becomes this input's value (null detaches).
  void SetModifier(Operator* modifier, Output* from);

  const InputState& State() const { return state_; }
  // Puts back a recorded state (undo and redo), with the same notifications as an edit.
  void RestoreState(const InputState& s);

  double Lowest() const;
  double Highest() const;

  // Attributes of the input's control (limits, slider ends, steps, host settings): later tags
  // replace earlier ones with the same id. The limits apply to values set afterwards.
  void SetAttrs(std::initializer_list<Tag> tags);
  double GetAttrD(uint32_t tag, double fallback = 0.0) const { return tags_.GetDouble(tag, fallback); }
  uint32_t GetAttrI(uint32_t tag, uint32_t fallback = 0) const { return tags_.GetInt(tag, fallback); }

 private:
  friend class Operator;
  friend class CPipelineDoc;
  void Change(InputState next);
  // The value held to the input's limits (numbers only), and as a key at a time.
  Ref<Parameter> Held(Parameter* value) const;
  static KeyPoint KeyOf(const Parameter& value, double time);

  Operator* owner_;
  int index_;
  std::string name_;
  uint32_t type_;
  uint32_t id_;
  TagList tags_;
  InputState state_;
};

class Output {
 public:
  Output(Operator* owner, int index, std::string name, uint32_t type, uint32_t id, TagList tags)
      : owner_(owner), index_(index), name_(std::move(name)), type_(type), id_(id), tags_(std::move(tags)) {}

  const std::string& Name() const { return name_; }
  uint32_t Type() const { return type_; }
  uint32_t Id() const { return id_; }
  const TagList& Tags() const { return tags_; }
  Operator* Owner() const { return owner_; }
  int Index() const { return index_; }
  // Inputs (of any tool) that take their value from this output, by link or as a modifier.
  const std::vector<Input*>& Targets() const { return targets_; }

 private:
  friend class Input;
  friend class CPipelineDoc;
  Operator* owner_;
  int index_;
  std::string name_;
  uint32_t type_;
  uint32_t id_;
  TagList tags_;
  std::vector<Input*> targets_;
};

class Operator : public LockableObject {
 public:
  Operator(Registry* reg, CArchive* ar, TagList* tags);
  ~Operator() override;

  // --- virtual operations, in slot order ---
  virtual void Dump();
  void SetAttrsTagList(const TagList& tags) override;
  virtual bool CopyAttr(uint32_t attr, void* value);
  // Writes the base record; a tool writes its class id first and its own fields, 0 and
  // "EndC" after. Returns 1 on success, 0 on failure.
  virtual uint32_t Save(CArchive* ar, TagList* tags);
  virtual void EndUndo(uint32_t keep);
  virtual void StartUndo(const char* name);
  virtual void RestoreState(UndoState* state);
  virtual UndoState* SaveState();
  virtual void CleanupState(UndoState* state);
  // Use() and Recycle() come from Object.
  virtual void GetTitle(char* title);
  virtual void GetStatus(char* text, int size);
  virtual bool PreProcessMsg(Message* msg);
  virtual bool HandleMsg(Message* msg);
  virtual void AddRequest(Request* req);
  virtual void HandleRequest(Request* req);
  virtual void CheckRequest(Request* req);
  virtual void OnConnect(kestrion::Link* now, kestrion::Link* before);
  virtual void OnLastDisconnect();
  virtual void OnDelete(uint32_t how);
  virtual void OnReplace();
  virtual void SetFlowPos(int x, int y);
  virtual void PutMsg(Message* msg);
  virtual void Abort(uint32_t on);
  virtual void InvalidateCache(Input* changed);
  virtual void CacheOn();
  virtual void CacheOff();
  virtual void SetParams(ControlWnd* panel, CRect& area);
  virtual void OnAddToFlow();
  virtual void OnStartRender(RenderMessage* msg);
  virtual void OnEndRender();
  virtual void OnGlobalExtentChanged(TimeExtent* extent);
  virtual uint32_t PreProcess(Request* req);
  virtual uint32_t PostProcess(Request* req);
  virtual uint32_t Process(Request* req) = 0;
  virtual void SetSource(Output* out, Parameter* current, double time);
  virtual Operator* ReplaceWith(Operator* other, uint32_t how);
  virtual void NotifyChanged(Input* in, Parameter* value, double time);
  virtual bool GetExtent(TimeExtent& valid, TimeExtent& global);
  virtual void AddControls(PreviewView* view);
  virtual void UpdateControls();
  virtual void DrawControls(OperatorControl* ctl, DrawSurface* dc, PreviewInfo* info, uint32_t flags);
  virtual bool ControlDown(OperatorControl* ctl, DrawSurface* dc, PreviewInfo* info, CPoint at);
  virtual bool ControlMove(OperatorControl* ctl, DrawSurface* dc, PreviewInfo* info, CPoint at);
  virtual bool ControlUp(OperatorControl* ctl, DrawSurface* dc, PreviewInfo* info, CPoint at);
  virtual bool ControlCommand(OperatorControl* ctl, DrawSurface* dc, PreviewInfo* info, uint32_t command, void* data);
  virtual bool ControlGetTip(OperatorControl* ctl, DrawSurface* dc, PreviewInfo* info, char* tip);
  virtual void OnActive(uint32_t active, CChildFrame* frame);
  // The fields of the tool's own saved record, in order, where they are a fixed list; text
  // flows then write them by name. Empty for tools without own fields or with a record of
  // another shape, whose data text flows write as hexadecimal bytes.
  virtual std::vector<DataField> DataLayout() const;

  // --- declaring inputs and outputs (constructors) ---
  Input* AddInput(const char* name, uint32_t type, uint32_t id, TagList tags = {});
  Output* AddOutput(const char* name, uint32_t type, uint32_t id, TagList tags = {});
  Input* FindInput(uint32_t id, const char* name = nullptr) const;
  Output* FindOutput(uint32_t id, const char* name = nullptr) const;
  const std::vector<std::unique_ptr<Input>>& Inputs() const { return inputs_; }
  const std::vector<std::unique_ptr<Output>>& Outputs() const { return outputs_; }

  // Class-level start-up and clean-up that every record passes unless it has its own.
  static uint32_t RegInit(Registry* reg);
  static void RegCleanup(Registry* reg);

  Registry* Class() const { return registry_; }
  // The picture on the tool's tile in the flow view; null for the host's default tile.
  const ResBitmap* TilePicture() const { return tile_picture_; }
  void SetTilePicture(const ResBitmap* picture) { tile_picture_ = picture; }
  CPipelineDoc* Document() const { return document_; }
  const std::string& Name() const { return name_; }
  int FlowX() const { return flow_x_; }
  int FlowY() const { return flow_y_; }

  // Set by Abort(1) and cleared by Abort(0); row loops test it before each row.
  std::atomic<int32_t> abort_flag{0};
  double time_step = kUnsetTimeStep;
  double time_origin = 0.0;
  double TimeStep() const { return time_step == kUnsetTimeStep ? 1.0 : time_step; }
  // opflag bits.
  uint32_t op_flags = 0;

 protected:
  // Called by Input when a value, link or modifier changes (records undo, drops cached
  // results, calls NotifyChanged).
  friend class Input;
  void InputChanged(Input* in, const InputState& before);

 private:
  friend class CPipelineDoc;
  struct SavedInput;
  // A link or modifier read from a saved record, resolved once every tool is loaded.
  struct PendingConnection {
    uint32_t input_id = 0;
    std::string tool;
    uint32_t output_id = 0;
    bool modifier = false;
  };
  void ApplySavedValue(Input* in);
  // Drops values saved for inputs this version no longer declares.
  void DropSavedValues();

  Registry* registry_;
  // The flow document that holds the tool, as tools see it and as this layer reaches it.
  CPipelineDoc* document_ = nullptr;
  ToolOwner* tool_owner_ = nullptr;
  std::string name_;
  int flow_x_ = 0, flow_y_ = 0;
  std::vector<std::unique_ptr<Input>> inputs_;
  std::vector<std::unique_ptr<Output>> outputs_;
  // Values read from a saved record, applied as the constructor declares the inputs.
  std::map<uint32_t, std::unique_ptr<SavedInput>> saved_inputs_;
  std::vector<PendingConnection> pending_connections_;
  bool caching_ = true;
  const ResBitmap* tile_picture_ = nullptr;
};

// An operator that splits its work into chunks run on the host's worker threads.
class ThreadedOperator : public Operator {
 public:
  ThreadedOperator(Registry* reg, CArchive* ar, TagList* tags) : Operator(reg, ar, tags) {}

  // Runs ProcessChunk (QuickProcessChunk for quick requests) once for every chunk index from
  // 0 to chunks-1 on the worker threads and returns when all are done.
  void DoMultiProcess(Request* req, long chunks);
  virtual void ThreadMain();
  virtual void ProcessChunk(Request* req, long chunk);
  virtual void QuickProcessChunk(Request* req, long chunk);

  // The two constructor settings of the threaded base that every threaded tool writes.
  int thread_setting = 2;
  int two_image_setting = 0;
  void SetThreadSettings(int first, int second) {
    thread_setting = first;
    two_image_setting = second;
  }
};

}  // namespace kestrion
