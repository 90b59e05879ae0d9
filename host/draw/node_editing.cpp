#include "host/draw/node_editing.h"

namespace kestrion {

NodeEditing::~NodeEditing() = default;

}  // namespace kestrion
