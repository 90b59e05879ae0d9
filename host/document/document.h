// The flow document: its tools and their links, the current time, the render range, undo, the
// pull renderer with its cache, and saving and loading the whole flow.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/base/object.h"
#include "host/graph/operator.h"

namespace kestrion {

class CArchive;

// Why a render or a load failed, for one clear message.
struct HostError {
  std::string message;
};

class CPipelineDoc : public ToolOwner {
 public:
  CPipelineDoc();
  ~CPipelineDoc();
  CPipelineDoc(const CPipelineDoc&) = delete;
  CPipelineDoc& operator=(const CPipelineDoc&) = delete;

  // --- tools ---
  // Creates a tool of a registered class and adds it; null (with the reason) on failure.
  Operator* CreateTool(const std::string& class_name, const std::string& name = {}, HostError* err = nullptr);
  // Adds a tool, taking over the caller's reference. An empty or taken name becomes the class
  // name followed by the lowest free number ("Blur1").
  Operator* AddTool(Operator* op, const std::string& name = {});
  // Takes a tool out of the flow: its links and the inputs it modified are released.
  void RemoveTool(Operator* op);
  bool RenameTool(Operator* op, const std::string& name);
  Operator* FindTool(const std::string& name) const;
  std::vector<Operator*> Tools() const;

  // Connects an input to an output; false (and no change) when the types differ or the link
  // would make a cycle.
  bool Connect(Output* from, Input* to, HostError* err = nullptr);
  // Attaches a new modifier of the given class to an input; its title is its name + " on".
  // The modifier's output labelled `output` drives the input, or by default its first output
  // of the input's type.
  Operator* AddModifier(Input* to, const std::string& class_name, HostError* err = nullptr,
                        const std::string& output = {});

  double current_time = 0.0;
  TimeExtent render_range{0.0, 0.0};
  // Changes the global render range and tells every tool (OnGlobalExtentChanged).
  void SetRenderRange(TimeExtent range);
  bool busy = false;

  // --- undo ---
  // Groups the changes until the matching EndUndo into one named step. Steps nest; the
  // outermost name is the step's.
  void StartUndo(const char* name) override;
  // Closes the step; with keep 0 the step is dropped (its changes stay).
  void EndUndo(uint32_t keep) override;
  bool Undo();
  bool Redo();
  std::string UndoName() const;
  std::string RedoName() const;
  bool InUndoStep() const { return undo_depth_ > 0; }

  // --- rendering ---
  // Renders one output at a time; null with the reason when a tool fails or the render is
  // aborted. A null result without an error is a tool that output nothing.
  Ref<Parameter> Render(Output* out, double time, uint32_t flags, HostError* err);
  // Stops renders in progress: every tool's abort flag is set until the next render starts.
  void Abort();
  // Drops the cached results of a tool and of everything downstream of it.
  void InvalidateFrom(Operator* op) override;
  // The memory the result cache may hold (bytes of images, 1 GiB by default).
  void SetCacheLimit(size_t bytes);
  size_t CachedResults() const;
  // Counts Process calls per tool: how tests and benchmarks see what the cache saved.
  size_t ProcessCount(const Operator* op) const;

  // --- documents ---
  void Save(CArchive& ar) const;
  // Loads a whole flow, or nothing: null with one message naming what is wrong.
  static std::unique_ptr<CPipelineDoc> Load(CArchive& ar, HostError* err);
  bool SaveFile(const std::string& path, HostError* err) const;
  static std::unique_ptr<CPipelineDoc> LoadFile(const std::string& path, HostError* err);

 private:
  friend class Operator;
  friend class Input;

  struct UndoStep;
  struct CacheEntry;
  using Outputs = std::vector<Ref<Parameter>>;

  // Host-side hooks of Operator and Input.
  void RecordInput(Input* in, const InputState& before) override;
  void RecordToolData(Operator* op) override;
  // Makes the document the tool's holder, or none.
  static void Hold(Operator* op, CPipelineDoc* doc);
  void OnInputChanged(Input* in);

  bool RenderTool(Operator* op, double time, uint32_t flags, Outputs& out, HostError* err, int depth);
  bool FetchInput(Input* in, double time, uint32_t flags, Ref<Parameter>& value, HostError* err, int depth);
  bool IsUpstream(Operator* maybe_upstream, Operator* of) const;
  std::string FreeName(const std::string& base) const;
  void ReleaseTool(Operator* op);

  std::vector<Ref<Operator>> tools_;
  std::vector<std::unique_ptr<UndoStep>> undo_;
  std::vector<std::unique_ptr<UndoStep>> redo_;
  std::unique_ptr<UndoStep> open_step_;
  int undo_depth_ = 0;
  bool restoring_ = false;

  std::list<CacheEntry> cache_;
  size_t cache_bytes_ = 0;
  size_t cache_limit_ = size_t(1) << 30;
  std::map<const Operator*, size_t> process_counts_;
};

}  // namespace kestrion
