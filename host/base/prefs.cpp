#include "host/base/prefs.h"

namespace kestrion {

GeneralPrefs PGeneral;
VideoModePrefs PVidMode;
PreviewPrefs PPreview;

}  // namespace kestrion
