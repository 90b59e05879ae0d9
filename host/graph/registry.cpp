#include "host/graph/registry.h"

#include <algorithm>

#include "host/base/object.h"

namespace kestrion {

namespace {
RegistryList g_class_registry;
}
RegistryList* ClassRegistry = &g_class_registry;

std::vector<Registry*> RegistryList::Records() const {
  std::lock_guard<std::mutex> hold(lock_);
  return records_;
}

Registry* RegistryList::FindByClassId(uint32_t class_id) const {
  std::lock_guard<std::mutex> hold(lock_);
  for (Registry* r : records_)
    if (r->ClassId() == class_id) return r;
  return nullptr;
}

Registry* RegistryList::FindByName(const std::string& name) const {
  std::lock_guard<std::mutex> hold(lock_);
  for (Registry* r : records_)
    if (r->Name() == name) return r;
  return nullptr;
}

Object* RegistryList::New(uint32_t selector, uint32_t value, CArchive* archive, TagList* tags) const {
  Registry* found = nullptr;
  {
    std::lock_guard<std::mutex> hold(lock_);
    for (Registry* r : records_) {
      const Tag* t = r->Tags().Find(selector);
      if (t && t->kind == TagKind::Integer && t->integer == value) {
        found = r;
        break;
      }
    }
  }
  return found ? found->Create(archive, tags) : nullptr;
}

int RegistryList::InitAll() {
  int failed = 0;
  for (Registry* r : Records()) {
    if (r->initialised_) continue;
    auto init = reinterpret_cast<ClassInitFn>(const_cast<void*>(r->Tags().GetPointer(reg::ClassInit)));
    if (init && init(r) == 0) {
      ++failed;
      continue;
    }
    r->initialised_ = true;
  }
  return failed;
}

void RegistryList::CleanupAll() {
  auto records = Records();
  for (auto it = records.rbegin(); it != records.rend(); ++it) {
    Registry* r = *it;
    if (!r->initialised_) continue;
    auto cleanup = reinterpret_cast<ClassCleanupFn>(const_cast<void*>(r->Tags().GetPointer(reg::ClassCleanup)));
    if (cleanup) cleanup(r);
    r->initialised_ = false;
  }
}

void RegistryList::Join(Registry* r) {
  std::lock_guard<std::mutex> hold(lock_);
  records_.push_back(r);
}

void RegistryList::Leave(Registry* r) {
  std::lock_guard<std::mutex> hold(lock_);
  std::erase(records_, r);
}

Registry::Registry(RegistryList** list, const char* name, TagList tags)
    : list_(list ? *list : nullptr), name_(name ? name : ""), tags_(std::move(tags)) {
  if (list_) list_->Join(this);
}

Registry::~Registry() {
  if (initialised_) {
    auto cleanup = reinterpret_cast<ClassCleanupFn>(const_cast<void*>(tags_.GetPointer(reg::ClassCleanup)));
    if (cleanup) cleanup(this);
  }
  if (list_) list_->Leave(this);
}

std::string Registry::DisplayName() const {
  const char* display = tags_.GetString(reg::DisplayName);
  return display ? display : name_;
}

Object* Registry::Create(CArchive* archive, TagList* tags) {
  auto factory = reinterpret_cast<FactoryFn>(const_cast<void*>(tags_.GetPointer(reg::Factory)));
  return factory ? factory(this, archive, tags) : nullptr;
}

}  // namespace kestrion
