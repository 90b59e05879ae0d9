// The host's preference objects that tools read.
#pragma once

namespace kestrion {

struct GeneralPrefs {
  int proxy = 1;  // sizes are divided by this in proxy renders
};

struct VideoModePrefs {
  int width = 720;
  int height = 486;
  double aspect_x = 1.0;  // pixel aspect
  double aspect_y = 1.0;
};

struct PreviewPrefs {
  int width = 360;
  int height = 243;
  bool fit_to_box = true;
};

extern GeneralPrefs PGeneral;
extern VideoModePrefs PVidMode;
extern PreviewPrefs PPreview;

}  // namespace kestrion
