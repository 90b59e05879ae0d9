#include "host/graph/request.h"

#include <algorithm>

#include "host/graph/operator.h"

namespace kestrion {

Request::Request(Operator* op, double t, uint32_t f) : time(t), flags(f), op_(op) {
  if (op_) outputs_.resize(op_->Outputs().size());
}

Request::~Request() {
  samples_.clear();
  outputs_.clear();
  for (Object* obj : owned_) obj->Recycle();
}

// Never inserts: chunks on worker threads read samples concurrently.
const Request::Sample* Request::FindSample(Input* in, int slot) const {
  auto it = samples_.find(in);
  if (it == samples_.end() || slot < 0 || size_t(slot) >= it->second.size()) return nullptr;
  return &it->second[size_t(slot)];
}

Request::Sample& Request::SampleFor(Input* in, int slot) {
  auto& samples = samples_[in];
  if (size_t(slot) >= samples.size()) samples.resize(size_t(slot) + 1, Sample{time, true, {}});
  return samples[size_t(slot)];
}

Parameter* Request::GetInputData(Input* in, int slot) const {
  const Sample* s = FindSample(in, slot);
  return s ? s->data.get() : nullptr;
}

Parameter* Request::TakeReference(Parameter* value) {
  auto it = std::find(owned_.begin(), owned_.end(), static_cast<Object*>(value));
  if (it != owned_.end()) owned_.erase(it);
  return value;
}

void Request::SetInputData(Input* in, Parameter* value, int slot) {
  if (!in || slot < 0) return;
  Sample& s = SampleFor(in, slot);
  if (!value) {
    s.data = {};
    if (status == -1) s.needed = false;
    return;
  }
  s.data = Ref<Parameter>::Adopt(TakeReference(value));
  s.needed = true;
}

double Request::GetInputTime(Input* in, int slot) const {
  const Sample* s = FindSample(in, slot);
  return s ? s->time : time;
}

void Request::SetInputTime(Input* in, double t, int slot) {
  if (!in || slot < 0) return;
  SampleFor(in, slot).time = t;
}

int Request::InputSlots(Input* in) const {
  auto it = samples_.find(in);
  return it == samples_.end() || it->second.empty() ? 1 : int(it->second.size());
}

bool Request::InputNeeded(Input* in, int slot) const {
  const Sample* s = FindSample(in, slot);
  return !s || s->needed;
}

uint32_t Request::SetOutputData(Output* out, Parameter* value) {
  if (!out || !op_ || out->Owner() != op_ || size_t(out->Index()) >= outputs_.size()) {
    if (value) {
      // Not ours to keep: release what the caller handed over.
      if (std::find(owned_.begin(), owned_.end(), static_cast<Object*>(value)) == owned_.end()) value->Recycle();
    }
    return 0;
  }
  outputs_[size_t(out->Index())] = value ? Ref<Parameter>::Adopt(TakeReference(value)) : Ref<Parameter>();
  return 1;
}

Parameter* Request::GetOutputData(Output* out) const {
  if (!out || size_t(out->Index()) >= outputs_.size() || out->Owner() != op_) return nullptr;
  return outputs_[size_t(out->Index())].get();
}

std::vector<Ref<Parameter>> Request::TakeOutputs() { return std::move(outputs_); }

void Request::Own(Object* obj) {
  if (obj) owned_.push_back(obj);
}

void Request::Release(Object* obj) {
  auto it = std::find(owned_.begin(), owned_.end(), obj);
  if (it == owned_.end()) return;
  owned_.erase(it);
  obj->Recycle();
}

}  // namespace kestrion
