// Registering tool classes: the factory every tool class uses, and the static record that the
// module enters in the host's ClassRegistry at load and destroys at unload.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

#include "host/base/archive.h"
#include "host/base/object.h"
#include "host/graph/registry.h"
#include "host/base/tags.h"

namespace kestrion::module {

using Allocator = void* (*)(size_t);

inline void* AllocateTool(size_t size) { return ::operator new(size, std::nothrow); }

// Allocates storage for the tool and runs its constructor on it: null when the allocation
// fails (the constructor never runs); when the constructor throws, the storage is released
// and the exception passes on.
template <class Tool>
Object* CreateTool(Allocator allocate, Registry* reg, CArchive* ar, TagList* tags) {
  void* storage = allocate(sizeof(Tool));
  if (!storage) return nullptr;
  try {
    return new (storage) Tool(reg, ar, tags);
  } catch (...) {
    ::operator delete(storage);
    throw;
  }
}

// The factory of a tool class (reg::Factory).
template <class Tool>
Object* Factory(Registry* reg, CArchive* ar, TagList* tags) {
  return CreateTool<Tool>(&AllocateTool, reg, ar, tags);
}

// Static storage for one tool class's Registry, built when the module loads.
struct ClassRecord {
  alignas(Registry) unsigned char storage[sizeof(Registry)];
};

// Builds the record with the five leading tags (class initialiser, clean-up, factory, class id,
// class type) followed by the class's own tags, and registers its destruction with the C
// runtime's exit-time list, so records go in reverse order when the module is unloaded.
void RegisterClass(ClassRecord& record, const char* name, ClassInitFn init, ClassCleanupFn cleanup,
                   FactoryFn factory, uint32_t class_id, uint32_t class_type, std::initializer_list<Tag> tags);

}  // namespace kestrion::module
