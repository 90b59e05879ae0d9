// `kestrion tools` and `kestrion describe`: the catalogue and the inputs of one tool.
#pragma once

#include <string>

namespace kestrion::cli {

int ListTools(bool json);
int DescribeTool(const std::string& name, bool json);

}  // namespace kestrion::cli
