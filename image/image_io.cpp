#include "image/image_io.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <utility>

#include "image/file_bytes.h"
#include "image/image_metadata.h"
#include "image/magick_module.h"
#include "image/png_codec.h"
#include "image/size_check.h"
#include "image/tiff_file.h"
#include "marlith/error.hpp"

namespace marlith {
namespace {

// The GraphicsMagick module, for the file at path: a module that cannot be opened is refused
// naming the file as well.
const MagickModule& MagickFor(const std::string& path) {
  try {
    return Magick();
  } catch (const Error& e) {
    throw Error(path + ": " + e.what());
  }
}

// Refuses, naming path, a type this build does not write.
void CheckWritableType(ImageFileType type, const std::string& path) {
  if (type == ImageFileType::kUnknown) {
    throw Error(path +
                ": unknown image type; name the file .png, .jpg, .jpeg, .tif, .tiff, "
                ".bmp, .webp, .pgm, .ppm or .pnm");
  }
  if (type == ImageFileType::kWebp && !MagickFor(path).canWriteWebp()) {
    throw Error(path + ": this build of GraphicsMagick cannot write WebP");
  }
}

// The pixels of a file GraphicsMagick reads: everything but TIFF and PNG.
LoadedImage ReadWithMagick(std::string_view bytes, const std::string& path) {
  LoadedImage image;
  std::string error;
  if (!MagickFor(path).read(bytes, path, image, error)) throw Error(error);
  return image;
}

// Turns the planes upright for an EXIF/TIFF orientation (1 to 8). Orientations 5 to 8 store
// the upright image's columns as rows (transposed); then 2, 3, 6 and 7 mirror it left to right
// and 3, 4, 7 and 8 top to bottom. So 6 (stored row 0 is the right side) sends stored (x, y)
// to upright (h - 1 - y, x).
void ApplyOrientation(LoadedImage& image, int orientation) {
  if (orientation < 2 || orientation > 8) return;
  const bool transposed = orientation >= 5;
  const bool mirrorsColumns =
      orientation == 2 || orientation == 3 || orientation == 6 || orientation == 7;
  const bool mirrorsRows =
      orientation == 3 || orientation == 4 || orientation == 7 || orientation == 8;
  const int w = image.width, h = image.height;
  const int uprightWidth = transposed ? h : w, uprightHeight = transposed ? w : h;
  const size_t planeSize = size_t(w) * h;
  std::vector<double> upright(image.planes.size());
  for (size_t plane = 0; plane < image.planes.size() / planeSize; ++plane) {
    const double* from = image.planes.data() + plane * planeSize;
    double* to = upright.data() + plane * planeSize;
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        int u = transposed ? y : x, v = transposed ? x : y;
        if (mirrorsColumns) u = uprightWidth - 1 - u;
        if (mirrorsRows) v = uprightHeight - 1 - v;
        to[size_t(v) * uprightWidth + u] = from[size_t(y) * w + x];
      }
    }
  }
  image.planes = std::move(upright);
  image.width = uprightWidth;
  image.height = uprightHeight;
}

void CheckConsistent(const LoadedImage& image, const std::string& path) {
  const int64_t pixels = SizeWithin(kMaxImagePixels, {image.width, image.height}).value_or(0);
  std::string problem;
  if (pixels == 0) {
    problem = "a size of " + std::to_string(image.width) + " x " + std::to_string(image.height);
  } else if (image.colourChannels != 1 && image.colourChannels != 3) {
    problem = std::to_string(image.colourChannels) + " colour channels (1 or 3 are written)";
  } else if (image.planes.size() !=
             size_t(pixels) * (image.colourChannels + (image.hasAlpha ? 1 : 0))) {
    problem = std::to_string(image.planes.size()) + " samples for its size and channels";
  }
  if (!problem.empty()) throw Error("cannot write " + path + ": the image has " + problem);
}

// The chunks of a PNG stream that say how its samples encode light, those of the size the
// format gives; none for other files.
PngLightChunks ReadPngLightChunks(std::string_view bytes) {
  PngLightChunks chunks;
  if (!bytes.starts_with(std::string_view("\x89PNG\r\n\x1a\n", 8))) return chunks;
  auto chunk = [&](std::string_view type, size_t size) {
    std::string data = FindPngChunk(bytes, type);
    return data.size() == size ? data : std::string();
  };
  chunks.gama = chunk("gAMA", 4);
  chunks.srgb = chunk("sRGB", 1);
  chunks.cicp = chunk("cICP", 4);
  return chunks;
}

// png with the chunks added (before its image data, where the format wants them).
std::string WithPngLightChunks(std::string png, const PngLightChunks& chunks) {
  const std::pair<std::string_view, const std::string*> kChunks[] = {
      {"cICP", &chunks.cicp}, {"gAMA", &chunks.gama}, {"sRGB", &chunks.srgb}};
  for (const auto& [type, data] : kChunks)
    if (!data->empty()) png = InsertPngChunk(png, type, *data);
  return png;
}

const char* DepthName(SampleDepth depth) {
  return depth == SampleDepth::k8 ? "8-bit" : depth == SampleDepth::k16 ? "16-bit" : "float";
}

}  // namespace

ImageFileType ImageFileTypeFromPath(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  static const std::pair<std::string_view, ImageFileType> kTypes[] = {
      {".png", ImageFileType::kPng},   {".jpg", ImageFileType::kJpeg},
      {".jpeg", ImageFileType::kJpeg}, {".tif", ImageFileType::kTiff},
      {".tiff", ImageFileType::kTiff}, {".bmp", ImageFileType::kBmp},
      {".webp", ImageFileType::kWebp}, {".pgm", ImageFileType::kPgm},
      {".ppm", ImageFileType::kPpm},   {".pnm", ImageFileType::kPnm},
  };
  for (const auto& [name, type] : kTypes) {
    if (extension == name) return type;
  }
  return ImageFileType::kUnknown;
}

const char* SampleDepthWords(SampleDepth depth) {
  switch (depth) {
    case SampleDepth::k8:
      return "8-bit";
    case SampleDepth::k16:
      return "16-bit";
    case SampleDepth::kFloat:
      return "floating-point";
  }
  return "?";
}

const char* ImageFileTypeName(ImageFileType type) {
  switch (type) {
    case ImageFileType::kPng:
      return "PNG";
    case ImageFileType::kJpeg:
      return "JPEG";
    case ImageFileType::kTiff:
      return "TIFF";
    case ImageFileType::kBmp:
      return "BMP";
    case ImageFileType::kWebp:
      return "WebP";
    case ImageFileType::kPgm:
      return "PGM";
    case ImageFileType::kPpm:
      return "PPM";
    case ImageFileType::kPnm:
      return "PNM";
    default:
      return "unknown";
  }
}

bool ImageFileTypeHolds(ImageFileType type, SampleDepth depth) {
  switch (depth) {
    case SampleDepth::k8:
      return type != ImageFileType::kUnknown;
    case SampleDepth::k16:
      return type == ImageFileType::kPng || type == ImageFileType::kTiff ||
             type == ImageFileType::kPgm || type == ImageFileType::kPpm ||
             type == ImageFileType::kPnm;
    case SampleDepth::kFloat:
      return type == ImageFileType::kTiff;
  }
  return false;
}

LoadedImage ReadImageFile(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw Error(path + " is a directory, not an image file");
  }
  std::string bytes, error;
  if (!ReadWholeFile(path, bytes, error)) throw Error(error);

  LoadedImage image;
  int orientation = 1;
  if (LooksLikeTiff(bytes)) {
    TiffContents tiff = ReadTiff(bytes, path);
    orientation = tiff.orientation;
    image = std::move(tiff.image);
  } else if (std::string_view(bytes).starts_with(std::string_view("\x89PNG\r\n\x1a\n", 8))) {
    if (!DecodePngImage(bytes, path, kMaxImagePixels, image, error)) throw Error(error);
    orientation = ExifOrientation(image.exif);
    image.pngLight = ReadPngLightChunks(bytes);
  } else {
    image = ReadWithMagick(bytes, path);
    orientation = ExifOrientation(image.exif);
  }
  ApplyOrientation(image, orientation);
  NeutraliseExifOrientation(image.exif);
  return image;
}

std::vector<std::string> OutputWarnings(const std::string& path, const LoadedImage& image) {
  std::vector<std::string> warnings;
  const ImageFileType type = ImageFileTypeFromPath(path);
  if (image.hasAlpha && (type == ImageFileType::kJpeg || type == ImageFileType::kPgm ||
                         type == ImageFileType::kPpm || type == ImageFileType::kPnm)) {
    warnings.push_back(path + ": " + ImageFileTypeName(type) +
                       " cannot hold the alpha channel; written without it (write .png or .tif "
                       "to keep it)");
  }
  return warnings;
}

void CheckOutputPath(const std::string& path) {
  CheckWritableType(ImageFileTypeFromPath(path), path);
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw Error(path + " is a directory; name an image file to write");
  }
  const std::filesystem::path target(path);
  const std::filesystem::path folder = target.has_parent_path() ? target.parent_path() : ".";
  if (!std::filesystem::is_directory(folder, ignored)) {
    throw Error(path + ": the folder " + folder.string() + " does not exist");
  }
  // Writing needs to create a temporary file there and rename it: write and search permission.
  if (::access(folder.c_str(), W_OK | X_OK) != 0) {
    throw Error(path + ": the folder " + folder.string() + " is not writable");
  }
}

void WriteImageFile(const std::string& path, const LoadedImage& image, SampleDepth depth,
                    int jpegQuality) {
  const ImageFileType type = ImageFileTypeFromPath(path);
  CheckWritableType(type, path);
  CheckConsistent(image, path);
  if (!ImageFileTypeHolds(type, depth)) {
    throw Error("cannot write " + path + ": " + ImageFileTypeName(type) + " cannot hold " +
                DepthName(depth) + " samples" +
                (depth == SampleDepth::kFloat ? " (write TIFF)" : " (write PNG or TIFF)"));
  }
  if (jpegQuality < 1 || jpegQuality > 100) {
    throw Error("cannot write " + path + ": a quality of " + std::to_string(jpegQuality) +
                " is outside 1 to 100");
  }
  if (type == ImageFileType::kPgm && image.colourChannels != 1) {
    throw Error("cannot write " + path + ": PGM holds grey images only (write .ppm or .pnm)");
  }
  std::string bytes;
  if (type == ImageFileType::kTiff) {
    bytes = EncodeTiff(image, depth, path);
  } else {
    std::string error;
    if (!MagickFor(path).encode(image, type, depth, jpegQuality, bytes, error))
      throw Error("cannot encode " + path + ": " + error);
    // The samples keep the curve they were read with: so does the file.
    if (type == ImageFileType::kPng) bytes = WithPngLightChunks(std::move(bytes), image.pngLight);
  }
  std::string error;
  if (!WriteFileAtomically(path, bytes, error)) throw Error(error);
}

LoadedStack ReadImageStack(const std::string& path) {
  LoadedStack stack;
  std::string bytes, error;
  std::error_code ignored;
  // Only a TIFF holds pages: anything else (or a failure to read, said by ReadImageFile) is
  // one image, its bytes read once.
  if (std::filesystem::is_directory(path, ignored) || !ReadFileHead(path, 8, bytes) ||
      !LooksLikeTiff(bytes) || !ReadWholeFile(path, bytes, error)) {
    stack.pages.push_back(ReadImageFile(path));
    return stack;
  }
  const TiffPages info = ReadTiffPages(bytes, path);
  if (info.count <= 1) {
    stack.pages.push_back(ReadImageFile(path));
    return stack;
  }
  stack.description = info.description;
  stack.xResolution = info.xResolution;
  stack.yResolution = info.yResolution;
  stack.resolutionUnit = info.resolutionUnit;
  std::string warning;
  stack.axes =
      ReadStackAxes(info.description, info.count, info.xResolution, info.yResolution, &warning);
  for (int page = 0; page < info.count; ++page) {
    TiffContents tiff = ReadTiff(bytes, path, page);
    LoadedImage& image = tiff.image;
    ApplyOrientation(image, tiff.orientation);
    NeutraliseExifOrientation(image.exif);
    if (page > 0) {
      const LoadedImage& first = stack.pages.front();
      if (image.width != first.width || image.height != first.height ||
          image.colourChannels != first.colourChannels || image.hasAlpha != first.hasAlpha ||
          image.depth != first.depth)
        throw Error(path + ": page " + std::to_string(page + 1) + " is " +
                    std::to_string(image.width) + " x " + std::to_string(image.height) +
                    ", the first " + std::to_string(first.width) + " x " +
                    std::to_string(first.height) +
                    " (or their colours or depths differ): the pages are no stack");
      if (double(image.width) * image.height * (page + 1) > double(kMaxImagePixels))
        throw Error(path + ": a stack of more than " + std::to_string(kMaxImagePixels) +
                    " pixels in all");
      image.warnings.clear();
    }
    stack.pages.push_back(std::move(image));
  }
  if (!warning.empty()) stack.pages.front().warnings.push_back(path + ": " + warning);
  return stack;
}

void WriteImageStack(const std::string& path, const LoadedStack& stack, SampleDepth depth,
                     int jpegQuality) {
  if (stack.pages.size() == 1) {
    WriteImageFile(path, stack.pages.front(), depth, jpegQuality);
    return;
  }
  const ImageFileType type = ImageFileTypeFromPath(path);
  if (type != ImageFileType::kTiff)
    throw Error("cannot write " + path + ": a stack of " + std::to_string(stack.pages.size()) +
                " pages is written as TIFF only (name the output .tif)");
  for (const LoadedImage& page : stack.pages) CheckConsistent(page, path);
  TiffPages tags;
  tags.count = static_cast<int>(stack.pages.size());
  tags.description = stack.description;
  tags.xResolution = stack.xResolution;
  tags.yResolution = stack.yResolution;
  tags.resolutionUnit = static_cast<uint16_t>(stack.resolutionUnit);
  // OME-XML names the sample type; a result of another depth says its own.
  if (stack.axes.kind == "OME-TIFF") {
    const char* words = depth == SampleDepth::k8    ? "uint8"
                        : depth == SampleDepth::k16 ? "uint16"
                                                    : "float";
    for (const char* old :
         {"Type=\"uint8\"", "Type=\"uint16\"", "Type=\"float\"", "Type=\"double\""}) {
      const size_t at = tags.description.find(old);
      if (at != std::string::npos) {
        tags.description.replace(at, std::strlen(old), std::string("Type=\"") + words + "\"");
        break;
      }
    }
  }
  const std::string bytes = EncodeTiffPages(stack.pages, depth, path, &tags);
  std::string error;
  if (!WriteFileAtomically(path, bytes, error)) throw Error(error);
}

}  // namespace marlith
