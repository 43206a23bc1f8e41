#include "picture_file.hh"

#include <glib.h>
#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include "log_domain.hh"

namespace ravel_soft {
namespace {

void png_warn(png_structp, png_const_charp text) {
  g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "PNG writer: %s", text);
}

// Kept free of objects with destructors: libpng reports errors by longjmp.
bool write_rows(FILE *file, const uint8_t *rgb, int width, int height, int stride) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, png_warn, png_warn);
  if (png == nullptr) return false;
  png_infop info = png_create_info_struct(png);
  if (info == nullptr || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, file);
  // Speed over size: the pictures are for looking at, written often.
  png_set_compression_level(png, 1);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
               PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int y = 0; y < height; y++)
    png_write_row(png, const_cast<png_bytep>(rgb + static_cast<size_t>(y) * stride));
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

bool write_png(const char *path, const uint8_t *rgb, int width, int height, int stride) {
  FILE *file = std::fopen(path, "wb");
  if (file == nullptr) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "cannot write %s: %s", path, std::strerror(errno));
    return false;
  }
  bool ok = write_rows(file, rgb, width, height, stride);
  if (std::fclose(file) != 0) ok = false;
  if (!ok) g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "writing %s failed", path);
  return ok;
}

}  // namespace ravel_soft
