// The class registry: one record per tool class, entered by the tool module when it is
// loaded and left when it is unloaded. The host lists, creates and loads tools through it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "host/base/tags.h"

namespace kestrion {

class CArchive;
class Object;
class Registry;

using ClassInitFn = uint32_t (*)(Registry*);
using ClassCleanupFn = void (*)(Registry*);
using FactoryFn = Object* (*)(Registry*, CArchive*, TagList*);

// One output a modifier offers (reg::ModifierOutputs points at a table of these, ended by a
// zero row).
struct ModifierOutputRow {
  uint32_t id;
  uint32_t type;
  const char* name;
};

class RegistryList {
 public:
  // Records in registration order.
  std::vector<Registry*> Records() const;
  Registry* FindByClassId(uint32_t class_id) const;
  Registry* FindByName(const std::string& name) const;
  // Finds the record whose tag `selector` has the value `value` (for example reg::ClassId and
  // a class id) and runs its factory. Null when no record matches or the factory fails.
  Object* New(uint32_t selector, uint32_t value, CArchive* archive, TagList* tags) const;

  // Runs the class initialisers of records not yet initialised; returns how many failed.
  int InitAll();
  // Runs the class clean-up of every initialised record, newest first.
  void CleanupAll();

 private:
  friend class Registry;
  void Join(Registry* r);
  void Leave(Registry* r);

  mutable std::mutex lock_;
  std::vector<Registry*> records_;
};

// The host's global list of tool classes.
extern RegistryList* ClassRegistry;

class Registry {
 public:
  // Joins *list (creating nothing: the list is the host's) with the given name and tags.
  Registry(RegistryList** list, const char* name, TagList tags);
  ~Registry();
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  const std::string& Name() const { return name_; }
  const TagList& Tags() const { return tags_; }
  uint32_t ClassId() const { return tags_.GetInt(reg::ClassId); }
  uint32_t ClassType() const { return tags_.GetInt(reg::ClassType); }
  // The name people see: the display name where there is one, else the registry name.
  std::string DisplayName() const;
  // Runs the factory; null when the record has none or it fails.
  Object* Create(CArchive* archive, TagList* tags);
  bool Initialised() const { return initialised_; }

 private:
  friend class RegistryList;
  RegistryList* list_;
  std::string name_;
  TagList tags_;
  bool initialised_ = false;
};

}  // namespace kestrion
