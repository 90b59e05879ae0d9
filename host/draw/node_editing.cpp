#include "host/draw/node_editing.h"

namespace kestrion {

NodeEditing::~NodeEditing() = default;

std::optional<bool> NodeEditing::RunCommand(uint32_t command) {
  switch (command) {
    case kSelectAll:
      SelectAll();
      return true;
    case kDeleteSelected:
    case kDeletePoints:
      return DeletePoints();
    case kSmooth:
      return Smooth();
    case kLinear:
      return Linear();
    default:
      return std::nullopt;
  }
}

}  // namespace kestrion
