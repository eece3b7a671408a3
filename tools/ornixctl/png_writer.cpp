#include "ornixctl/png_writer.h"

#include <png.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace ornixctl {

bool PngAvailable() {
    return true;
}

std::string WritePng(const std::string& path, const Image& image) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!file) {
        return "cannot write " + path;
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        return "libpng could not start";
    }
    // PNG keeps 16-bit samples big-endian.
    const size_t bytesPerSample = image.bitDepth / 8;
    const size_t rowBytes = size_t{image.width} * image.channels * bytesPerSample;
    std::vector<uint8_t> row(rowBytes);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return "libpng failed to write " + path;
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, image.width, image.height, static_cast<int>(image.bitDepth),
                 image.channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const size_t samplesPerRow = size_t{image.width} * image.channels;
    for (uint32_t y = 0; y < image.height; ++y) {
        const uint16_t* samples = &image.samples[y * samplesPerRow];
        for (size_t i = 0; i < samplesPerRow; ++i) {
            if (bytesPerSample == 2) {
                row[2 * i] = static_cast<uint8_t>(samples[i] >> 8);
                row[2 * i + 1] = static_cast<uint8_t>(samples[i]);
            } else {
                row[i] = static_cast<uint8_t>(samples[i]);
            }
        }
        png_write_row(png, row.data());
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return {};
}

}  // namespace ornixctl
