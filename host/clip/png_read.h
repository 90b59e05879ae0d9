// Reading PNG frames with libpng directly: the codec's errors become the message of a failed
// read (never text on the terminal), and the frame's size is checked before any pixel memory
// is taken. Every layout reads as BGRA: palettes and grey expanded, 16-bit samples rounded to
// 8 bits, alpha 255 where the file has none, no gamma or colour conversion.
#pragma once

#include <cstdio>
#include <string>

namespace kestrion {

class Image;

// Whether a file starts as a PNG file does (the first four bytes of the signature, so that a
// PNG whose signature was damaged is still told as one); the file is left at its start.
bool IsPngFile(std::FILE* file);

// Reads the PNG from an open file into a new image (one reference, the caller's); null with the
// reason in `why` when the file is damaged or its size is over the image size limit.
Image* ReadPng(std::FILE* file, std::string* why);

}  // namespace kestrion
