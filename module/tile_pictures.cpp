#include "module/tile_pictures.h"

#include <cstdint>
#include <vector>

namespace kestrion::module {

namespace {

constexpr int kSize = 12;

// One character a pixel: '.' transparent, 'k' dark grey, 'w' white, 'b' blue, 'o' orange.
// Merge: a light frame laid over a dark one. Channel Booleans: three overlapping channels.
const char* const kMergeMap[kSize] = {
    "kkkkkkkk....", "kbbbbbbk....", "kbbbbbbk....", "kbbbwwwwwwww", "kbbbwoooooow", "kbbbwoooooow",
    "kbbbwoooooow", "kkkkwoooooow", "....woooooow", "....woooooow", "....woooooow", "....wwwwwwww",
};
const char* const kChannelBooleansMap[kSize] = {
    "..oooo......", ".oooooo.....", "oooooooo....", "oooobbbbbb..", "ooobbbbbbbb.", "ooobbkkbbbb.",
    ".oobkkkkbbb.", "..obkkkkbb..", "....kkkkk...", "....kkkkk...", ".....kkk....", "............",
};

uint32_t ColourOf(char c) {
  switch (c) {
    case 'k': return 0xFF404040u;
    case 'w': return 0xFFF0F0F0u;
    case 'b': return 0xFF2090F0u;  // words are BGRA: blue in the low byte
    case 'o': return 0xFFD07030u;
    default: return 0;
  }
}

}  // namespace

void LoadTilePicture(ResBitmap& bitmap, TilePictureName name) {
  if (bitmap.Loaded()) return;
  const char* const* map = name == TilePictureName::Merge ? kMergeMap : kChannelBooleansMap;
  std::vector<uint32_t> pixels;
  pixels.reserve(kSize * kSize);
  for (int y = 0; y < kSize; ++y)
    for (int x = 0; x < kSize; ++x) pixels.push_back(ColourOf(map[y][x]));
  bitmap.Load(kSize, kSize, std::move(pixels));
}

}  // namespace kestrion::module
