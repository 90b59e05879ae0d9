// What an operator needs of the flow that holds it: undo steps around changes to its own data
// and inputs, and dropping the cached results downstream of it. The document implements it, so
// operators reach their document without this layer knowing the document.
#pragma once

#include <cstdint>

namespace kestrion {

class Input;
class Operator;
struct InputState;

class ToolOwner {
 public:
  // Opens a named undo step (steps nest; the outermost name is the step's).
  virtual void StartUndo(const char* name) = 0;
  // Closes the step; with keep 0 the step is dropped (its changes stay).
  virtual void EndUndo(uint32_t keep) = 0;
  // Records the tool's own data (SaveState) in the open undo step.
  virtual void RecordToolData(Operator* op) = 0;
  // Records an input's value, link and modifier as they were before a change.
  virtual void RecordInput(Input* in, const InputState& before) = 0;
  // Drops the cached results of a tool and of everything downstream of it.
  virtual void InvalidateFrom(Operator* op) = 0;

 protected:
  ~ToolOwner() = default;
};

}  // namespace kestrion
