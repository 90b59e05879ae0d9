#include "host/clip/png_read.h"

#include <png.h>

#include <cstring>
#include <new>

#include "host/image/image.h"

namespace kestrion {

namespace {

// What libpng's callbacks reach: plain data only, since an error leaves by longjmp.
struct PngErrorText {
  char text[200] = "";
};

[[noreturn]] void OnPngError(png_structp png, png_const_charp message) {
  auto* error = static_cast<PngErrorText*>(png_get_error_ptr(png));
  std::snprintf(error->text, sizeof error->text, "%s", message);
  png_longjmp(png, 1);
}

// Warnings (an odd ancillary chunk, say) do not stop a read and are not shown.
void OnPngWarning(png_structp, png_const_charp) {}

// The part of the read that may longjmp: it holds no object with a destructor. Returns the
// image (or null with `error` or `size_error` set).
Image* Decode(png_structp png, png_infop info, std::FILE* file, PngErrorText* error, std::string* size_error) {
  Image* volatile img = nullptr;
  if (setjmp(png_jmpbuf(png))) {
    if (img) img->Recycle();
    return nullptr;
  }
  png_init_io(png, file);
  png_read_info(png, info);
  const png_uint_32 width = png_get_image_width(png, info), height = png_get_image_height(png, info);
  png_set_expand(png);
  png_set_scale_16(png);
  png_set_gray_to_rgb(png);
  png_set_bgr(png);
  png_set_filler(png, 0xFF, PNG_FILLER_AFTER);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  if (png_get_rowbytes(png, info) != size_t(width) * 4) {
    std::snprintf(error->text, sizeof error->text, "its pixel layout cannot be read as 8-bit colour");
    return nullptr;
  }
  try {
    img = new Image(int(width), int(height), 32);
  } catch (const ImageSizeError& e) {
    *size_error = e.what();
    return nullptr;
  } catch (const std::bad_alloc&) {
    *size_error = "not enough memory for a " + std::to_string(width) + " x " + std::to_string(height) + " frame";
    return nullptr;
  }
  png_read_image(png, reinterpret_cast<png_bytepp>(const_cast<void**>(img->RowTable())));
  const float aspect = png_get_pixel_aspect_ratio(png, info);
  img->x_aspect = aspect > 0.0f ? aspect : 1.0f;
  return img;
}

}  // namespace

bool IsPngFile(std::FILE* file) {
  png_byte signature[4];
  const size_t n = std::fread(signature, 1, sizeof signature, file);
  std::rewind(file);
  return n == sizeof signature && png_sig_cmp(signature, 0, sizeof signature) == 0;
}

Image* ReadPng(std::FILE* file, std::string* why) {
  PngErrorText error;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &error, OnPngError, OnPngWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info) {
    png_destroy_read_struct(&png, nullptr, nullptr);
    *why = "not enough memory to read it";
    return nullptr;
  }
  // Sizes past the image size limit are refused below; libpng's own limit only keeps its
  // arithmetic in range.
  png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
  std::string size_error;
  Image* img = Decode(png, info, file, &error, &size_error);
  png_destroy_read_struct(&png, &info, nullptr);
  if (!img && !size_error.empty())
    *why = size_error;
  else if (!img)
    *why = std::feof(file) ? "the file ends early (is it cut off?)" : error.text[0] ? error.text : "it is damaged";
  return img;
}

}  // namespace kestrion
