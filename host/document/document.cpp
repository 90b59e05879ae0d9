#include "host/document/document.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <set>

#include "host/base/archive.h"
#include "host/clip/clip.h"
#include "host/image/image.h"
#include "host/base/prefs.h"
#include "host/graph/registry.h"
#include "host/graph/request.h"

namespace kestrion {

namespace {
constexpr uint32_t kDocumentMagic = FourCC("KFlw");
constexpr uint32_t kDocumentVersion = 1;
constexpr uint32_t kDocumentEnd = FourCC("EndF");
// More codec settings than this in a document mean it is corrupt.
constexpr uint32_t kMaxCodecSettings = 64;
constexpr int kMaxFlowDepth = 2000;
constexpr size_t kMaxCacheEntries = 512;
// Request flags that change what a tool outputs, and so key the cache.
constexpr uint32_t kCacheFlags = rflag::Quick | rflag::Proxy | rflag::Interactive | rflag::Preview;

std::string TimeText(double t) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%g", t);
  return buf;
}

size_t BytesOf(const std::vector<Ref<Parameter>>& outputs) {
  size_t bytes = 0;
  for (const auto& p : outputs)
    if (auto* img = dynamic_cast<const Image*>(p.get()))
      bytes += size_t(img->Width()) * size_t(img->Height()) * img->BytesPerPixel();
  return bytes;
}

bool TypesConnect(uint32_t from, uint32_t to) {
  const auto image_like = [](uint32_t t) { return t == vtype::Image || t == vtype::Mask; };
  return from == to || (image_like(from) && image_like(to));
}
}  // namespace

struct CPipelineDoc::UndoStep {
  struct InputChange {
    Ref<Operator> owner;
    Input* input;
    InputState before, after;
  };
  struct DataChange {
    Ref<Operator> op;
    std::unique_ptr<UndoState> before, after;
  };
  std::string name;
  std::vector<InputChange> inputs;
  std::vector<DataChange> data;
  bool Empty() const { return inputs.empty() && data.empty(); }
};

struct CPipelineDoc::CacheEntry {
  const Operator* op;
  double time;
  uint32_t flags;
  Outputs outputs;
  size_t bytes;
};

CPipelineDoc::CPipelineDoc() = default;

CPipelineDoc::~CPipelineDoc() {
  cache_.clear();
  undo_.clear();
  redo_.clear();
  open_step_.reset();
  // Links point into other tools: cut them all before any tool goes.
  for (auto& op : tools_) {
    for (auto& in : op->Inputs()) in->state_ = InputState();
    for (auto& out : op->Outputs()) out->targets_.clear();
  }
  for (auto& op : tools_) Hold(op.get(), nullptr);
  tools_.clear();
}

// --- tools ---

void CPipelineDoc::Hold(Operator* op, CPipelineDoc* doc) {
  op->document_ = doc;
  op->tool_owner_ = doc;
}

Operator* CPipelineDoc::CreateTool(const std::string& class_name, const std::string& name, HostError* err) {
  Registry* reg = ClassRegistry->FindByName(class_name);
  if (!reg) {
    if (err) err->message = "unknown tool class '" + class_name + "'";
    return nullptr;
  }
  Object* obj = nullptr;
  try {
    obj = reg->Create(nullptr, nullptr);
  } catch (const std::exception& e) {
    if (err) err->message = "could not create a " + class_name + ": " + e.what();
    return nullptr;
  }
  auto* op = dynamic_cast<Operator*>(obj);
  if (!op) {
    if (obj) obj->Recycle();
    if (err) err->message = "could not create a " + class_name;
    return nullptr;
  }
  return AddTool(op, name);
}

std::string CPipelineDoc::FreeName(const std::string& base) const {
  for (int n = 1;; ++n) {
    std::string candidate = base + std::to_string(n);
    if (!FindTool(candidate)) return candidate;
  }
}

Operator* CPipelineDoc::AddTool(Operator* op, const std::string& name) {
  if (!op) return nullptr;
  std::string wanted = name;
  if (wanted.empty() || FindTool(wanted)) {
    const std::string base = wanted.empty() ? (op->Class() ? op->Class()->Name() : std::string("Tool")) : wanted;
    wanted = FreeName(base);
  }
  op->name_ = wanted;
  Hold(op, this);
  tools_.push_back(Ref<Operator>::Adopt(op));
  op->OnAddToFlow();
  return op;
}

void CPipelineDoc::ReleaseTool(Operator* op) {
  InvalidateFrom(op);
  for (auto& out : op->Outputs()) {
    const auto targets = out->Targets();
    for (Input* in : targets) {
      if (in->Link() == out.get()) in->ConnectTo(nullptr);
      if (in->ModifierOutput() == out.get()) in->SetModifier(nullptr, nullptr);
    }
  }
}

void CPipelineDoc::RemoveTool(Operator* op) {
  auto it = std::find_if(tools_.begin(), tools_.end(), [op](const Ref<Operator>& t) { return t.get() == op; });
  if (it == tools_.end()) return;
  Ref<Operator> keep = *it;
  // Modifiers attached to the tool's inputs go with it.
  for (auto& in : op->Inputs())
    if (Operator* mod = in->Modifier()) {
      in->SetModifier(nullptr, nullptr);
      RemoveTool(mod);
    }
  ReleaseTool(op);
  op->OnDelete(0);
  tools_.erase(std::find_if(tools_.begin(), tools_.end(), [op](const Ref<Operator>& t) { return t.get() == op; }));
  Hold(op, nullptr);
}

bool CPipelineDoc::RenameTool(Operator* op, const std::string& name) {
  const Operator* holder = FindTool(name);
  if (name.empty() || (holder && holder != op)) return false;
  op->name_ = name;
  return true;
}

void CPipelineDoc::SetRenderRange(TimeExtent range) {
  render_range = range;
  for (auto& op : tools_) {
    TimeExtent extent = range;
    op->OnGlobalExtentChanged(&extent);
  }
}

Operator* CPipelineDoc::FindTool(const std::string& name) const {
  for (const auto& op : tools_)
    if (op->Name() == name) return op.get();
  return nullptr;
}

std::vector<Operator*> CPipelineDoc::Tools() const {
  std::vector<Operator*> out;
  for (const auto& op : tools_) out.push_back(op.get());
  return out;
}

bool CPipelineDoc::IsUpstream(Operator* maybe, Operator* of) const {
  std::set<const Operator*> seen;
  std::vector<Operator*> stack{of};
  while (!stack.empty()) {
    Operator* op = stack.back();
    stack.pop_back();
    if (op == maybe) return true;
    if (!seen.insert(op).second) continue;
    for (auto& in : op->Inputs()) {
      if (in->Link()) stack.push_back(in->Link()->Owner());
      if (in->Modifier()) stack.push_back(in->Modifier());
    }
  }
  return false;
}

bool CPipelineDoc::Connect(Output* from, Input* to, HostError* err) {
  if (!from || !to) {
    if (err) err->message = "nothing to connect";
    return false;
  }
  if (!TypesConnect(from->Type(), to->Type())) {
    if (err)
      err->message = "cannot connect " + from->Owner()->Name() + "." + from->Name() + " (" + FourCCText(from->Type()) +
                     ") to " + to->Owner()->Name() + "." + to->Name() + " (" + FourCCText(to->Type()) + ")";
    return false;
  }
  if (IsUpstream(to->Owner(), from->Owner())) {
    if (err) err->message = "connecting " + from->Owner()->Name() + " to " + to->Owner()->Name() + " would make a loop";
    return false;
  }
  to->ConnectTo(from);
  return true;
}

Operator* CPipelineDoc::AddModifier(Input* to, const std::string& class_name, HostError* err,
                                    const std::string& output) {
  Registry* reg = ClassRegistry->FindByName(class_name);
  if (!reg || reg->ClassType() != classtype::Modifier) {
    if (err) err->message = "'" + class_name + "' is not a modifier class";
    return nullptr;
  }
  Operator* mod = CreateTool(class_name, {}, err);
  if (!mod) return nullptr;
  Output* feed = nullptr;
  std::string fitting;
  for (auto& out : mod->Outputs()) {
    if (out->Type() != to->Type()) continue;
    if (!feed && (output.empty() || out->Name() == output)) feed = out.get();
    fitting += (fitting.empty() ? "\"" : ", \"") + out->Name() + "\"";
  }
  if (!feed) {
    if (err)
      err->message = fitting.empty() || output.empty()
                         ? class_name + " has no output for a " + FourCCText(to->Type()) + " input"
                         : class_name + " has no output \"" + output + "\" for a " + FourCCText(to->Type()) +
                               " input (valid: " + fitting + ")";
    RemoveTool(mod);
    return nullptr;
  }
  Ref<Parameter> current = Ref<Parameter>::Adopt(to->CurrentValue());
  mod->SetSource(feed, current.get(), current_time);
  to->SetModifier(mod, feed);
  return mod;
}

// --- undo ---

void CPipelineDoc::StartUndo(const char* name) {
  if (undo_depth_++ == 0) {
    open_step_ = std::make_unique<UndoStep>();
    open_step_->name = name ? name : "";
  }
}

void CPipelineDoc::EndUndo(uint32_t keep) {
  if (undo_depth_ == 0 || --undo_depth_ > 0) return;
  std::unique_ptr<UndoStep> step = std::move(open_step_);
  for (auto& change : step->inputs) change.after = change.input->State();
  for (auto& change : step->data) change.after.reset(change.op->SaveState());
  if (keep && !step->Empty()) {
    undo_.push_back(std::move(step));
    redo_.clear();
  }
}

void CPipelineDoc::RecordInput(Input* in, const InputState& before) {
  if (restoring_ || !open_step_) return;
  for (const auto& change : open_step_->inputs)
    if (change.input == in) return;
  open_step_->inputs.push_back({Ref<Operator>::Share(in->Owner()), in, before, {}});
}

void CPipelineDoc::RecordToolData(Operator* op) {
  if (restoring_ || !open_step_) return;
  for (const auto& change : open_step_->data)
    if (change.op.get() == op) return;
  UndoState* before = op->SaveState();
  if (before) open_step_->data.push_back({Ref<Operator>::Share(op), std::unique_ptr<UndoState>(before), {}});
}

bool CPipelineDoc::Undo() {
  if (undo_.empty() || undo_depth_ > 0) return false;
  std::unique_ptr<UndoStep> step = std::move(undo_.back());
  undo_.pop_back();
  restoring_ = true;
  for (auto it = step->data.rbegin(); it != step->data.rend(); ++it) {
    it->op->RestoreState(it->before.get());
    InvalidateFrom(it->op.get());
  }
  for (auto it = step->inputs.rbegin(); it != step->inputs.rend(); ++it) it->input->RestoreState(it->before);
  restoring_ = false;
  redo_.push_back(std::move(step));
  return true;
}

bool CPipelineDoc::Redo() {
  if (redo_.empty() || undo_depth_ > 0) return false;
  std::unique_ptr<UndoStep> step = std::move(redo_.back());
  redo_.pop_back();
  restoring_ = true;
  for (auto& change : step->data) {
    change.op->RestoreState(change.after.get());
    InvalidateFrom(change.op.get());
  }
  for (auto& change : step->inputs) change.input->RestoreState(change.after);
  restoring_ = false;
  undo_.push_back(std::move(step));
  return true;
}

std::string CPipelineDoc::UndoName() const { return undo_.empty() ? std::string() : undo_.back()->name; }
std::string CPipelineDoc::RedoName() const { return redo_.empty() ? std::string() : redo_.back()->name; }

// --- rendering ---

void CPipelineDoc::SetCacheLimit(size_t bytes) {
  cache_limit_ = bytes;
  while (!cache_.empty() && cache_bytes_ > cache_limit_) {
    cache_bytes_ -= cache_.back().bytes;
    cache_.pop_back();
  }
}

size_t CPipelineDoc::CachedResults() const { return cache_.size(); }

size_t CPipelineDoc::ProcessCount(const Operator* op) const {
  auto it = process_counts_.find(op);
  return it == process_counts_.end() ? 0 : it->second;
}

void CPipelineDoc::Abort() {
  for (auto& op : tools_) op->Abort(1);
}

void CPipelineDoc::InvalidateFrom(Operator* op) {
  std::set<const Operator*> downstream;
  std::vector<const Operator*> stack{op};
  while (!stack.empty()) {
    const Operator* cur = stack.back();
    stack.pop_back();
    if (!downstream.insert(cur).second) continue;
    for (auto& out : cur->Outputs())
      for (Input* target : out->Targets()) stack.push_back(target->Owner());
  }
  for (auto it = cache_.begin(); it != cache_.end();) {
    if (downstream.count(it->op)) {
      cache_bytes_ -= it->bytes;
      it = cache_.erase(it);
    } else {
      ++it;
    }
  }
}

void CPipelineDoc::OnInputChanged(Input* in) { in->Owner()->InvalidateCache(in); }

Ref<Parameter> CPipelineDoc::Render(Output* out, double time, uint32_t flags, HostError* err) {
  if (!out || out->Owner()->Document() != this) {
    if (err) err->message = "the output to render is not in this flow";
    return {};
  }
  for (auto& op : tools_) op->Abort(0);
  busy = true;
  Outputs outputs;
  const bool ok = RenderTool(out->Owner(), time, flags, outputs, err, 0);
  busy = false;
  if (!ok) return {};
  return size_t(out->Index()) < outputs.size() ? outputs[size_t(out->Index())] : Ref<Parameter>();
}

bool CPipelineDoc::FetchInput(Input* in, double time, uint32_t flags, Ref<Parameter>& value, HostError* err,
                              int depth) {
  Output* source = nullptr;
  switch (in->Source()) {
    case ValueSource::Modifier:
      source = in->ModifierOutput();
      break;
    case ValueSource::Link:
      source = in->Link();
      break;
    default:
      value = Ref<Parameter>::Adopt(in->ValueAt(time));
      return true;
  }
  Outputs upstream;
  if (!RenderTool(source->Owner(), time, flags, upstream, err, depth + 1)) return false;
  if (size_t(source->Index()) < upstream.size()) value = upstream[size_t(source->Index())];
  return true;
}

bool CPipelineDoc::RenderTool(Operator* op, double time, uint32_t flags, Outputs& result, HostError* err, int depth) {
  const std::string who = "tool '" + op->Name() + "'" + (op->Class() ? " (" + op->Class()->Name() + ")" : "");
  if (depth > kMaxFlowDepth) {
    if (err) err->message = "the flow is too deep at " + who;
    return false;
  }
  const uint32_t key_flags = flags & kCacheFlags;
  if (op->caching_) {
    for (auto it = cache_.begin(); it != cache_.end(); ++it) {
      if (it->op == op && it->time == time && it->flags == key_flags) {
        cache_.splice(cache_.begin(), cache_, it);
        result = cache_.front().outputs;
        return true;
      }
    }
  }

  Request req(op, time, flags);
  try {
    // Values that need no image upstream (constants, animations, modifiers) are there for
    // CheckRequest, which may move them, decline them or set others; they are fetched once.
    std::set<const Input*> ready;
    for (auto& in : op->Inputs()) {
      req.SetInputTime(in.get(), time, 0);
      if (in->IsImage() || in->Source() == ValueSource::Link) continue;
      Ref<Parameter> value;
      if (!FetchInput(in.get(), time, flags, value, err, depth)) return false;
      if (value) req.SetInputData(in.get(), value.Release(), 0);
      ready.insert(in.get());
    }
    op->CheckRequest(&req);
    req.status = 0;
    for (auto& in : op->Inputs()) {
      const int slots = req.InputSlots(in.get());
      for (int slot = 0; slot < slots; ++slot) {
        if (!req.InputNeeded(in.get(), slot)) continue;
        if (slot == 0 && ready.count(in.get()) && req.GetInputTime(in.get(), 0) == time) continue;
        Ref<Parameter> value;
        if (!FetchInput(in.get(), req.GetInputTime(in.get(), slot), flags, value, err, depth)) return false;
        if (value) req.SetInputData(in.get(), value.Release(), slot);
      }
    }
    ++process_counts_[op];
    uint32_t ok = op->PreProcess(&req);
    if (ok) ok = op->Process(&req);
    if (ok) ok = op->PostProcess(&req);
    if (op->abort_flag.load()) {
      if (err) err->message = "the render was stopped";
      return false;
    }
    if (!ok) {
      if (err) err->message = who + " failed to render frame " + TimeText(time);
      return false;
    }
  } catch (const std::exception& e) {
    if (err) err->message = who + " failed to render frame " + TimeText(time) + ": " + e.what();
    return false;
  }
  result = req.TakeOutputs();
  if (op->caching_ && !result.empty()) {
    const size_t bytes = BytesOf(result);
    cache_.push_front(CacheEntry{op, time, key_flags, result, bytes});
    cache_bytes_ += bytes;
    while (cache_.size() > 1 && (cache_bytes_ > cache_limit_ || cache_.size() > kMaxCacheEntries)) {
      cache_bytes_ -= cache_.back().bytes;
      cache_.pop_back();
    }
  }
  return true;
}

// --- documents ---

void CPipelineDoc::Save(CArchive& ar) const {
  ar.WriteWord(kDocumentMagic);
  ar.WriteWord(kDocumentVersion);
  ar.WriteDouble(current_time);
  ar.WriteDouble(render_range.start);
  ar.WriteDouble(render_range.end);
  ar.WriteInt(PGeneral.proxy);
  ar.WriteInt(PVidMode.width);
  ar.WriteInt(PVidMode.height);
  ar.WriteDouble(PVidMode.aspect_x);
  ar.WriteDouble(PVidMode.aspect_y);
  ar.WriteInt(PPreview.width);
  ar.WriteInt(PPreview.height);
  ar.WriteInt(PPreview.fit_to_box ? 1 : 0);
  const auto compression = ClipParameter::Compression();
  ar.WriteWord(uint32_t(compression.size()));
  for (const auto& [extension, level] : compression) {
    ar.WriteString(extension);
    ar.WriteInt(level);
  }
  ar.WriteWord(uint32_t(tools_.size()));
  for (const auto& op : tools_) op->Save(&ar, nullptr);
  ar.WriteWord(kDocumentEnd);
}

std::unique_ptr<CPipelineDoc> CPipelineDoc::Load(CArchive& ar, HostError* err) {
  auto fail = [err](const std::string& message) {
    if (err) err->message = message;
    return std::unique_ptr<CPipelineDoc>();
  };
  auto doc = std::make_unique<CPipelineDoc>();
  GeneralPrefs general;
  VideoModePrefs video;
  PreviewPrefs preview;
  std::vector<std::pair<std::string, int>> compression;
  size_t record = 0;
  std::string record_class;
  try {
    if (ar.ReadWord() != kDocumentMagic) return fail("not a flow document (wrong magic word)");
    const uint32_t version = ar.ReadWord();
    if (version != kDocumentVersion)
      return fail("flow document version " + std::to_string(version) + " is not supported (this build reads " +
                  std::to_string(kDocumentVersion) + ")");
    doc->current_time = ar.ReadDouble();
    doc->render_range.start = ar.ReadDouble();
    doc->render_range.end = ar.ReadDouble();
    general.proxy = ar.ReadInt();
    video.width = ar.ReadInt();
    video.height = ar.ReadInt();
    video.aspect_x = ar.ReadDouble();
    video.aspect_y = ar.ReadDouble();
    preview.width = ar.ReadInt();
    preview.height = ar.ReadInt();
    preview.fit_to_box = ar.ReadInt() != 0;
    const uint32_t codecs = ar.ReadWord();
    if (codecs > kMaxCodecSettings) return fail("the document is corrupt: it claims " + std::to_string(codecs) + " codec settings");
    for (uint32_t i = 0; i < codecs; ++i) {
      std::string extension = ar.ReadString();
      const int level = ar.ReadInt();
      if (extension.empty() || extension.size() > 16 || level < 0 || level > 100)
        return fail("the document is corrupt: a codec setting is out of range");
      compression.emplace_back(std::move(extension), level);
    }
    const auto sane_size = [](int v) { return v > 0 && v <= 1 << 20; };
    const auto sane_aspect = [](double a) { return std::isfinite(a) && a > 0.0; };
    if (!std::isfinite(doc->current_time) || !std::isfinite(doc->render_range.start) ||
        !std::isfinite(doc->render_range.end) || general.proxy < 1 || general.proxy > 1024 ||
        !sane_size(video.width) || !sane_size(video.height) || !sane_aspect(video.aspect_x) ||
        !sane_aspect(video.aspect_y) || !sane_size(preview.width) || !sane_size(preview.height))
      return fail("the document is corrupt: its settings are out of range");
    const uint32_t count = ar.ReadWord();
    if (count > ar.Remaining() / 8) return fail("the document is corrupt: it claims " + std::to_string(count) + " tools");
    for (record = 1; record <= count; ++record) {
      record_class.clear();
      const uint32_t class_id = ar.ReadWord();
      Registry* reg = ClassRegistry->FindByClassId(class_id);
      if (!reg)
        return fail("tool record " + std::to_string(record) + " has the unknown class id '" + FourCCText(class_id) +
                    "' (0x" + [&] {
                      char b[16];
                      std::snprintf(b, sizeof b, "%08X", class_id);
                      return std::string(b);
                    }() + ")");
      record_class = reg->Name();
      Object* obj = reg->Create(&ar, nullptr);
      auto* op = dynamic_cast<Operator*>(obj);
      if (!op) {
        if (obj) obj->Recycle();
        return fail("tool record " + std::to_string(record) + " (" + record_class + ") could not be created");
      }
      const std::string name = op->name_;
      if (name.empty() || doc->FindTool(name)) {
        op->Recycle();
        return fail("the document is corrupt: tool record " + std::to_string(record) + " (" + record_class +
                    ") has " + (name.empty() ? "no name" : "the duplicate name '" + name + "'"));
      }
      doc->tools_.push_back(Ref<Operator>::Adopt(op));
      Hold(op, doc.get());
      op->DropSavedValues();
    }
    record = 0;
    if (ar.ReadWord() != kDocumentEnd) return fail("the document is corrupt: its end mark is missing");
  } catch (const std::exception& e) {
    if (record > 0)
      return fail("tool record " + std::to_string(record) + (record_class.empty() ? "" : " (" + record_class + ")") +
                  ": " + e.what());
    return fail(e.what());
  }

  for (auto& op : doc->tools_) {
    for (const auto& pending : op->pending_connections_) {
      Input* in = op->FindInput(pending.input_id);
      if (!in) continue;
      Operator* source = doc->FindTool(pending.tool);
      if (!source)
        return fail("the document is corrupt: input '" + in->Name() + "' of tool '" + op->Name() +
                    "' takes its value from '" + pending.tool + "', which is not in the flow");
      Output* out = source->FindOutput(pending.output_id);
      if (!out)
        return fail("the document is corrupt: input '" + in->Name() + "' of tool '" + op->Name() +
                    "' takes its value from output " + FourCCText(pending.output_id) + " of '" + pending.tool +
                    "', which it does not have");
      if (!TypesConnect(out->Type(), in->Type()) || doc->IsUpstream(op.get(), source))
        return fail("the document is corrupt: the connection of '" + op->Name() + "." + in->Name() + "' to '" +
                    pending.tool + "' is not possible");
      if (pending.modifier)
        in->SetModifier(source, out);
      else
        in->ConnectTo(out);
    }
    op->pending_connections_.clear();
  }
  PGeneral = general;
  PVidMode = video;
  PPreview = preview;
  for (const auto& [extension, level] : compression) ClipParameter::SetCompression(extension, level);
  for (auto& op : doc->tools_) op->OnAddToFlow();
  return doc;
}

bool CPipelineDoc::SaveFile(const std::string& path, HostError* err) const {
  try {
    CArchive ar;
    Save(ar);
    ar.WriteFile(path);
    return true;
  } catch (const std::exception& e) {
    if (err) err->message = e.what();
    return false;
  }
}

std::unique_ptr<CPipelineDoc> CPipelineDoc::LoadFile(const std::string& path, HostError* err) {
  try {
    CArchive ar = CArchive::FromFile(path);
    auto doc = Load(ar, err);
    if (!doc && err) err->message = "'" + path + "': " + err->message;
    return doc;
  } catch (const std::exception& e) {
    if (err) err->message = e.what();
    return nullptr;
  }
}

}  // namespace kestrion
