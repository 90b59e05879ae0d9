#include "host/graph/module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "host/graph/registry.h"

namespace kestrion {

std::unique_ptr<ToolModule> ToolModule::Open(const std::string& path, std::string* error) {
  const size_t before = ClassRegistry->Records().size();
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    if (error) *error = "cannot load the tool module '" + path + "': " + dlerror();
    return nullptr;
  }
  std::unique_ptr<ToolModule> module(new ToolModule(handle, path));
  if (ClassRegistry->Records().size() == before) {
    if (error) *error = "'" + path + "' registers no tool classes";
    return nullptr;
  }
  const int failed = ClassRegistry->InitAll();
  if (failed > 0) {
    if (error) *error = "'" + path + "': " + std::to_string(failed) + " tool classes failed to start";
    return nullptr;
  }
  return module;
}

ToolModule::~ToolModule() {
  ClassRegistry->CleanupAll();
  if (handle_) dlclose(handle_);
}

static std::filesystem::path ExecutableFolder() {
  std::error_code ec;
  const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::path(".") : exe.parent_path();
}

std::string ModuleFolder() {
  if (const char* env = std::getenv("KESTRION_MODULES"); env && *env) return env;
  return (ExecutableFolder() / "modules").string();
}

std::string ApplicationFolder() {
  std::string folder;
  if (const char* env = std::getenv("KESTRION_HOME"); env && *env)
    folder = env;
  else
    folder = ExecutableFolder().string();
  if (folder.empty() || folder.back() != '/') folder += '/';
  return folder;
}

std::vector<std::unique_ptr<ToolModule>> OpenModules(const std::string& folder, std::string* error) {
  std::vector<std::unique_ptr<ToolModule>> modules;
  std::vector<std::string> paths;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ec))
    if (entry.path().extension() == ".so") paths.push_back(entry.path().string());
  if (ec) {
    if (error) *error = "cannot read the module folder '" + folder + "': " + ec.message();
    return modules;
  }
  if (paths.empty()) {
    if (error) *error = "no tool modules in '" + folder + "'";
    return modules;
  }
  std::sort(paths.begin(), paths.end());
  for (const auto& path : paths) {
    auto module = ToolModule::Open(path, error);
    if (!module) {
      modules.clear();
      return modules;
    }
    modules.push_back(std::move(module));
  }
  return modules;
}

}  // namespace kestrion
