// A render request: one operator at one time. The renderer fills in the input values at the
// times CheckRequest chose, the operator's Process reads them and hands its results on with
// SetOutputData. Everything the request makes or holds is released when it ends, unless it
// was handed on.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/base/object.h"
#include "host/graph/parameter.h"

namespace kestrion {

class Input;
class Operator;
class Output;

class Request {
 public:
  Request(Operator* op, double time, uint32_t flags);
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  Operator* Op() const { return op_; }

  // The value on an input for sample `slot` (0 unless CheckRequest asked for more samples);
  // owned by the request. Null for an unconnected image input or an input not needed.
  Parameter* GetInputData(Input* in, int slot = 0) const;
  // Before rendering (status -1), a null value marks the input's sample as not needed, so
  // nothing upstream is rendered for it. Otherwise sets the value, taking over the caller's
  // reference (or the request's own, for a value the request made).
  void SetInputData(Input* in, Parameter* value, int slot = 0);
  double GetInputTime(Input* in, int slot = 0) const;
  // Asks for an input at another time, or for an extra sample at a new slot.
  void SetInputTime(Input* in, double time, int slot = 0);
  // Number of samples asked for on an input (1 unless CheckRequest added slots).
  int InputSlots(Input* in) const;
  bool InputNeeded(Input* in, int slot = 0) const;

  // Hands a result on, taking over the caller's reference (or the request's own, for an image
  // the request made). Returns 1, or 0 when the output is not the operator's.
  uint32_t SetOutputData(Output* out, Parameter* value);
  Parameter* GetOutputData(Output* out) const;
  // Gives the results to the caller: one reference each, by output index (null where unset).
  std::vector<Ref<Parameter>> TakeOutputs();

  // Makes the request the owner of an object it releases when it ends (NewImage uses this).
  void Own(Object* obj);
  // Releases an object the request owns now rather than when it ends: an image a tool made
  // for an intermediate step and no longer needs. Nothing happens for an object it does not own.
  void Release(Object* obj);

  double time;
  uint32_t flags;
  int32_t status = -1;  // -1 while undecided (CheckRequest), then 0

 private:
  struct Sample {
    double time = 0.0;
    bool needed = true;
    Ref<Parameter> data;
  };
  const Sample* FindSample(Input* in, int slot) const;
  Sample& SampleFor(Input* in, int slot);
  Parameter* TakeReference(Parameter* value);

  Operator* op_;
  std::map<const Input*, std::vector<Sample>> samples_;
  std::vector<Ref<Parameter>> outputs_;
  std::vector<Object*> owned_;
};

}  // namespace kestrion
