// Flows on disk: the binary document (.kfl) and the text flow (.json) that people and scripts
// write, loaded and saved through the same calls. Relative clip names in a flow are resolved
// against the folder of the flow file.
#pragma once

#include <memory>
#include <string>

#include "host/document/document.h"

namespace kestrion {

// Loads a text flow. Clip names are taken relative to `base_folder`. A source that gives no
// "Global Out" spans its clip from its "Global In", cut at the end of the flow's range. Returns
// null with one message naming the tool and input concerned (and what is valid) when the flow
// is wrong.
std::unique_ptr<CPipelineDoc> LoadTextFlow(const std::string& text, const std::string& base_folder, HostError* err);
// The text flow of a document: every tool with every input that has a value, so that loading
// it gives back the same document.
std::string SaveTextFlow(const CPipelineDoc& doc);

// Whether a path ends in .json or .kfl (in any case), the extensions of flow files.
bool IsFlowFileName(const std::string& path);
// A .json or .kfl file, chosen by extension.
std::unique_ptr<CPipelineDoc> LoadFlowFile(const std::string& path, HostError* err);
// Writes atomically; false with the reason.
bool SaveFlowFile(const CPipelineDoc& doc, const std::string& path, HostError* err);

}  // namespace kestrion
