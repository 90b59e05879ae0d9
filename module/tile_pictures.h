// The tile pictures of the module's tools, drawn from small character maps kept here.
#pragma once

#include "host/graph/ui.h"

namespace kestrion::module {

enum class TilePictureName { Merge, ChannelBooleans };

// Loads a picture into `bitmap` unless it is loaded already (the static bitmap of a tool class,
// shared by all its instances).
void LoadTilePicture(ResBitmap& bitmap, TilePictureName name);

}  // namespace kestrion::module
