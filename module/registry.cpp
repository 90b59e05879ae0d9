#include "module/registry.h"

extern "C" int __cxa_atexit(void (*fn)(void*), void* arg, void* dso_handle);
extern "C" void* __dso_handle;

namespace kestrion::module {

static void DestroyRecord(void* record) { static_cast<Registry*>(record)->~Registry(); }

void RegisterClass(ClassRecord& record, const char* name, ClassInitFn init, ClassCleanupFn cleanup,
                   FactoryFn factory, uint32_t class_id, uint32_t class_type, std::initializer_list<Tag> tags) {
  TagList list{Tag(reg::ClassInit, init), Tag(reg::ClassCleanup, cleanup), Tag(reg::Factory, factory),
               Tag(reg::ClassId, class_id), Tag(reg::ClassType, class_type)};
  for (const Tag& t : tags) list.Add(t);
  Registry* r = new (record.storage) Registry(&ClassRegistry, name, std::move(list));
  __cxa_atexit(&DestroyRecord, r, &__dso_handle);
}

}  // namespace kestrion::module
