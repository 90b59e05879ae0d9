// Loading the tool module: the host opens it at start-up, which runs the module's static
// initialisers (each enters one class in the ClassRegistry), runs the class initialisers, and
// at shut-down runs the class clean-ups and closes the module, whose exit-time functions
// take the records out again.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace kestrion {

class ToolModule {
 public:
  // Opens one module file; null with the reason on failure.
  static std::unique_ptr<ToolModule> Open(const std::string& path, std::string* error);
  ~ToolModule();
  ToolModule(const ToolModule&) = delete;
  ToolModule& operator=(const ToolModule&) = delete;

  const std::string& Path() const { return path_; }

 private:
  ToolModule(void* handle, std::string path) : handle_(handle), path_(std::move(path)) {}
  void* handle_;
  std::string path_;
};

// The folder modules are loaded from: $KESTRION_MODULES when set, else "modules" beside the
// running executable.
std::string ModuleFolder();

// The application folder, ending with a separator: $KESTRION_HOME when set, else the folder of
// the running executable. Class start-up reads its settings files (Clips.def) from there.
std::string ApplicationFolder();

// Opens every module (*.so) in a folder, in name order; stops at the first that fails.
std::vector<std::unique_ptr<ToolModule>> OpenModules(const std::string& folder, std::string* error);

}  // namespace kestrion
