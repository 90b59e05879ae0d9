// The Loader reads frames of a clip into the flow. Its class start-up and clean-up run once
// per module load around the operator's own.
#include "tools/clip/loader.h"

#include "host/operator.h"

namespace kestrion::tools {

uint32_t LoaderRegInit(Registry* reg) { return Operator::RegInit(reg); }

void LoaderRegCleanup(Registry* reg) { Operator::RegCleanup(reg); }

}  // namespace kestrion::tools
