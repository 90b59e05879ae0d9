#include "host/document/node_lists.h"

namespace kestrion {

NodeListTool::~NodeListTool() = default;

}  // namespace kestrion
