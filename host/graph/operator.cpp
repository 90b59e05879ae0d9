#include "host/graph/operator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "host/base/archive.h"
#include "host/graph/registry.h"

namespace kestrion {

// Parts of an input's value in a saved base record.
namespace {
constexpr uint32_t kSavedConstant = 1;
constexpr uint32_t kSavedAnimation = 2;
constexpr uint32_t kSavedLink = 4;
constexpr uint32_t kSavedModifier = 8;
}  // namespace

struct Operator::SavedInput {
  uint32_t type = 0;
  Ref<Parameter> constant;
  std::unique_ptr<Spline> animation;
};

InputState::InputState(const InputState& o)
    : constant(o.constant),
      animation(o.animation ? std::make_unique<Spline>(*o.animation) : nullptr),
      link(o.link),
      modifier(o.modifier),
      modifier_output(o.modifier_output) {}

InputState& InputState::operator=(const InputState& o) {
  if (this != &o) *this = InputState(o);
  return *this;
}

InputState::~InputState() = default;

// --- Input ---

Input::Input(Operator* owner, int index, std::string name, uint32_t type, uint32_t id, TagList tags)
    : owner_(owner), index_(index), name_(std::move(name)), type_(type), id_(id), tags_(std::move(tags)) {
  if (type_ == vtype::Number) {
    state_.constant = Ref<Parameter>::Adopt(new Number(tags_.GetDouble(in::Default, 0.0)));
  } else if (type_ == vtype::Point) {
    state_.constant = Ref<Parameter>::Adopt(
        new Point(float(tags_.GetDouble(in::DefaultX, 0.0)), float(tags_.GetDouble(in::DefaultY, 0.0))));
  } else if (type_ == vtype::Text) {
    state_.constant = Ref<Parameter>::Adopt(new Text());
  }
}

Input::~Input() {
  if (state_.link) std::erase(state_.link->targets_, this);
  if (state_.modifier_output) std::erase(state_.modifier_output->targets_, this);
}

bool Input::IsOptional() const {
  const Tag* t = tags_.Find(in::Required);
  return t && t->kind == TagKind::Integer && t->integer == 0;
}

ValueSource Input::Source() const {
  if (state_.modifier) return ValueSource::Modifier;
  if (state_.link) return ValueSource::Link;
  if (state_.animation && !state_.animation->Empty()) return ValueSource::Animation;
  return ValueSource::Constant;
}

void Input::SetAttrs(std::initializer_list<Tag> tags) {
  for (const Tag& t : tags) tags_.Set(t);
}

double Input::Lowest() const { return tags_.GetDouble(in::Lowest, -HUGE_VAL); }
double Input::Highest() const { return tags_.GetDouble(in::Highest, HUGE_VAL); }

Parameter* Input::ValueAt(double time) const {
  if (state_.animation && !state_.animation->Empty()) {
    if (type_ == vtype::Point)
      return new Point(float(state_.animation->Evaluate(time, 0)), float(state_.animation->Evaluate(time, 1)));
    if (type_ == vtype::Number) return new Number(state_.animation->Evaluate(time, 0));
  }
  if (!state_.constant) return nullptr;
  state_.constant->Use();
  return state_.constant.get();
}

Ref<Parameter> Input::Held(Parameter* value) const {
  Ref<Parameter> v = Ref<Parameter>::Adopt(value);
  if (auto* n = dynamic_cast<Number*>(v.get())) {
    const double clamped = std::clamp(n->value, Lowest(), Highest());
    if (clamped != n->value) v = Ref<Parameter>::Adopt(new Number(clamped));
  }
  return v;
}

KeyPoint Input::KeyOf(const Parameter& value, double time) {
  KeyPoint k;
  k.time = time;
  if (auto* n = dynamic_cast<const Number*>(&value)) k.value[0] = n->value;
  if (auto* p = dynamic_cast<const Point*>(&value)) {
    k.value[0] = p->x;
    k.value[1] = p->y;
  }
  return k;
}

void Input::SetValue(Parameter* value, double time) {
  Ref<Parameter> v = Held(value);
  if (!v) return;
  const bool animated = state_.animation && !state_.animation->Empty();
  if (!animated && state_.constant && state_.constant->Equals(*v)) return;  // no change, no notice
  InputState next = state_;
  if (animated && time != kOutsideTime) {
    next.animation->SetKey(KeyOf(*v, time));
  } else {
    next.animation.reset();
    next.constant = std::move(v);
  }
  Change(std::move(next));
}

void Input::SetKey(Parameter* value, double time) {
  Ref<Parameter> v = Held(value);
  if (!v || (type_ != vtype::Number && type_ != vtype::Point)) return;
  InputState next = state_;
  if (!next.animation) next.animation = std::make_unique<Spline>(tags_.GetInt(in::CurveKind, Spline::Linear));
  next.animation->SetKey(KeyOf(*v, time));
  Change(std::move(next));
}

void Input::SetAnimation(const Spline& spline) {
  InputState next = state_;
  next.animation = std::make_unique<Spline>(spline);
  Change(std::move(next));
}

void Input::ClearAnimation() {
  InputState next = state_;
  next.animation.reset();
  Change(std::move(next));
}

void Input::ConnectTo(Output* from) {
  InputState next = state_;
  next.link = from;
  Change(std::move(next));
}

void Input::SetModifier(Operator* modifier, Output* from) {
  InputState next = state_;
  next.modifier = Ref<Operator>::Share(modifier);
  next.modifier_output = modifier ? from : nullptr;
  Change(std::move(next));
}

void Input::RestoreState(const InputState& s) { Change(s); }

void Input::Change(InputState next) {
  if (state_.link != next.link) {
    if (state_.link) std::erase(state_.link->targets_, this);
    if (next.link) next.link->targets_.push_back(this);
  }
  if (state_.modifier_output != next.modifier_output) {
    if (state_.modifier_output) std::erase(state_.modifier_output->targets_, this);
    if (next.modifier_output) next.modifier_output->targets_.push_back(this);
  }
  InputState before = std::move(state_);
  state_ = std::move(next);
  if (before.link != state_.link) {
    kestrion::Link now{state_.link, this}, was{before.link, this};
    owner_->OnConnect(&now, &was);
  }
  owner_->InputChanged(this, before);
}

// --- Operator ---

Operator::Operator(Registry* reg, CArchive* ar, TagList* tags) : registry_(reg) {
  if (tags) SetAttrsTagList(*tags);
  if (!ar) return;
  op_flags |= opflag::Restored;
  name_ = ar->ReadString();
  flow_x_ = ar->ReadInt();
  flow_y_ = ar->ReadInt();
  const uint32_t count = ar->ReadWord();
  if (count > ar->Remaining() / 12)
    throw ArchiveError("the document is corrupt: tool '" + name_ + "' claims " + std::to_string(count) + " saved inputs");
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t id = ar->ReadWord();
    auto saved = std::make_unique<SavedInput>();
    saved->type = ar->ReadWord();
    const uint32_t parts = ar->ReadWord();
    if (parts & ~(kSavedConstant | kSavedAnimation | kSavedLink | kSavedModifier))
      throw ArchiveError("the document is corrupt: input " + FourCCText(id) + " of tool '" + name_ +
                         "' has unknown saved parts");
    if (parts & kSavedConstant) saved->constant = Ref<Parameter>::Adopt(LoadParameter(saved->type, *ar));
    if (parts & kSavedAnimation) saved->animation = std::make_unique<Spline>(Spline::Load(*ar));
    for (uint32_t part : {kSavedLink, kSavedModifier}) {
      if (!(parts & part)) continue;
      PendingConnection pending;
      pending.input_id = id;
      pending.tool = ar->ReadString();
      pending.output_id = ar->ReadWord();
      pending.modifier = part == kSavedModifier;
      pending_connections_.push_back(std::move(pending));
    }
    saved_inputs_[id] = std::move(saved);
  }
}

Operator::~Operator() = default;

void Operator::Dump() {
  std::fprintf(stderr, "%s (%s): %zu inputs, %zu outputs\n", name_.c_str(),
               registry_ ? registry_->Name().c_str() : "no class", inputs_.size(), outputs_.size());
}

void Operator::SetAttrsTagList(const TagList& tags) { Object::SetAttrsTagList(tags); }
bool Operator::CopyAttr(uint32_t, void*) { return false; }

uint32_t Operator::Save(CArchive* ar, TagList*) {
  if (!ar) return 0;
  ar->WriteString(name_);
  ar->WriteInt(flow_x_);
  ar->WriteInt(flow_y_);
  std::vector<const Input*> saved;
  for (const auto& in : inputs_) {
    const InputState& s = in->State();
    const bool has_constant = s.constant && !in->IsImage();
    if (has_constant || s.animation || s.link || s.modifier) saved.push_back(in.get());
  }
  ar->WriteWord(uint32_t(saved.size()));
  for (const Input* in : saved) {
    const InputState& s = in->State();
    const bool has_constant = s.constant && !in->IsImage();
    const uint32_t parts = (has_constant ? kSavedConstant : 0) | (s.animation ? kSavedAnimation : 0) |
                           (s.link ? kSavedLink : 0) | (s.modifier ? kSavedModifier : 0);
    ar->WriteWord(in->Id());
    ar->WriteWord(has_constant ? s.constant->Type() : in->Type());
    ar->WriteWord(parts);
    if (has_constant) s.constant->Save(*ar);
    if (s.animation) s.animation->Save(*ar);
    if (s.link) {
      ar->WriteString(s.link->Owner()->Name());
      ar->WriteWord(s.link->Id());
    }
    if (s.modifier) {
      ar->WriteString(s.modifier->Name());
      ar->WriteWord(s.modifier_output ? s.modifier_output->Id() : 0);
    }
  }
  return 1;
}

void Operator::StartUndo(const char* name) {
  if (!tool_owner_) return;
  tool_owner_->StartUndo(name);
  tool_owner_->RecordToolData(this);
}

void Operator::EndUndo(uint32_t keep) {
  if (tool_owner_) tool_owner_->EndUndo(keep);
}

void Operator::RestoreState(UndoState*) {}
UndoState* Operator::SaveState() { return nullptr; }
void Operator::CleanupState(UndoState* state) { delete state; }

void Operator::GetTitle(char* title) { std::snprintf(title, kTitleSize, "%s", name_.c_str()); }
void Operator::GetStatus(char* text, int size) {
  if (size > 0) text[0] = '\0';
}
bool Operator::PreProcessMsg(Message*) { return false; }
bool Operator::HandleMsg(Message*) { return false; }
void Operator::AddRequest(Request*) {}
void Operator::HandleRequest(Request*) {}
void Operator::CheckRequest(Request*) {}
void Operator::OnConnect(kestrion::Link*, kestrion::Link*) {}
void Operator::OnLastDisconnect() {}
void Operator::OnDelete(uint32_t) {}
void Operator::OnReplace() {}
void Operator::SetFlowPos(int x, int y) {
  flow_x_ = x;
  flow_y_ = y;
}
void Operator::PutMsg(Message*) {}
void Operator::Abort(uint32_t on) { abort_flag.store(on ? 1 : 0); }
void Operator::InvalidateCache(Input*) {
  if (tool_owner_) tool_owner_->InvalidateFrom(this);
}
void Operator::CacheOn() { caching_ = true; }
void Operator::CacheOff() {
  caching_ = false;
  if (tool_owner_) tool_owner_->InvalidateFrom(this);
}
void Operator::SetParams(ControlWnd*, CRect&) {}
void Operator::OnAddToFlow() {}
void Operator::OnStartRender(RenderMessage*) {}
void Operator::OnEndRender() {}
void Operator::OnGlobalExtentChanged(TimeExtent*) {}
uint32_t Operator::PreProcess(Request*) { return 1; }
uint32_t Operator::PostProcess(Request*) { return 1; }
void Operator::SetSource(Output*, Parameter*, double) {}
Operator* Operator::ReplaceWith(Operator*, uint32_t) { return nullptr; }
void Operator::NotifyChanged(Input*, Parameter*, double) {}
bool Operator::GetExtent(TimeExtent&, TimeExtent&) { return false; }
void Operator::AddControls(PreviewView*) {}
void Operator::UpdateControls() {}
void Operator::DrawControls(OperatorControl*, DrawSurface*, PreviewInfo*, uint32_t) {}
bool Operator::ControlDown(OperatorControl*, DrawSurface*, PreviewInfo*, CPoint) { return false; }
bool Operator::ControlMove(OperatorControl*, DrawSurface*, PreviewInfo*, CPoint) { return false; }
bool Operator::ControlUp(OperatorControl*, DrawSurface*, PreviewInfo*, CPoint) { return false; }
bool Operator::ControlCommand(OperatorControl*, DrawSurface*, PreviewInfo*, uint32_t, void*) { return false; }
bool Operator::ControlGetTip(OperatorControl*, DrawSurface*, PreviewInfo*, char* tip) {
  tip[0] = '\0';
  return false;
}
void Operator::OnActive(uint32_t, CChildFrame*) {}
std::vector<DataField> Operator::DataLayout() const { return {}; }

Input* Operator::AddInput(const char* name, uint32_t type, uint32_t id, TagList tags) {
  inputs_.push_back(std::make_unique<Input>(this, int(inputs_.size()), name, type, id, std::move(tags)));
  Input* in = inputs_.back().get();
  ApplySavedValue(in);
  return in;
}

Output* Operator::AddOutput(const char* name, uint32_t type, uint32_t id, TagList tags) {
  outputs_.push_back(std::make_unique<Output>(this, int(outputs_.size()), name, type, id, std::move(tags)));
  return outputs_.back().get();
}

Input* Operator::FindInput(uint32_t id, const char* name) const {
  for (const auto& in : inputs_)
    if (in->Id() == id && (!name || in->Name() == name)) return in.get();
  if (name)
    for (const auto& in : inputs_)
      if (in->Name() == name) return in.get();
  return nullptr;
}

Output* Operator::FindOutput(uint32_t id, const char* name) const {
  for (const auto& out : outputs_)
    if (out->Id() == id && (!name || out->Name() == name)) return out.get();
  if (name)
    for (const auto& out : outputs_)
      if (out->Name() == name) return out.get();
  return nullptr;
}

// A saved constant or animation replaces the default as the input is declared; one of
// another type (the input changed kind between versions) is left out.
void Operator::ApplySavedValue(Input* in) {
  auto it = saved_inputs_.find(in->Id());
  if (it == saved_inputs_.end()) return;
  SavedInput& saved = *it->second;
  if (saved.constant && saved.constant->Type() == in->Type()) in->state_.constant = std::move(saved.constant);
  if (saved.animation && (in->Type() == vtype::Number || in->Type() == vtype::Point))
    in->state_.animation = std::move(saved.animation);
  saved_inputs_.erase(it);
}

void Operator::DropSavedValues() { saved_inputs_.clear(); }

void Operator::InputChanged(Input* in, const InputState& before) {
  if (tool_owner_) tool_owner_->RecordInput(in, before);
  InvalidateCache(in);
  Ref<Parameter> value = Ref<Parameter>::Adopt(in->CurrentValue());
  NotifyChanged(in, value.get(), kOutsideTime);
}

uint32_t Operator::RegInit(Registry*) { return 1; }
void Operator::RegCleanup(Registry*) {}

// --- bases ---

void ThreadedOperator::ThreadMain() {}
void ThreadedOperator::ProcessChunk(Request*, long) {}
void ThreadedOperator::QuickProcessChunk(Request* req, long chunk) { ProcessChunk(req, chunk); }

}  // namespace kestrion
