// The metadata blocks the image readers and writers carry by hand, where GraphicsMagick does not:
// EXIF orientation, PNG chunks and Photoshop image resources. Private to image/. Every parser
// here takes untrusted bytes: it checks each offset against the size and gives up quietly (an
// empty result) on anything malformed, since metadata never decides whether an image loads.
#pragma once

#include <string>
#include <string_view>

namespace marlith {

// EXIF blocks are held as the bare TIFF structure that starts with "II" or "MM", as PNG's eXIf
// chunk, WebP's EXIF chunk and Photoshop's EXIF resource hold them. JPEG's APP1 segment puts
// "Exif\0\0" in front: ExifFromApp1 removes it (and leaves other blocks alone), ExifToApp1
// adds it.
std::string ExifFromApp1(std::string_view block);
std::string ExifToApp1(std::string_view exif);

// The orientation tag (0x0112) of the first image directory: 1 to 8, or 0 when the block has
// none or it cannot be read.
int ExifOrientation(std::string_view exif);

// Sets the orientation tag of the first image directory to 1 (upright) in place, keeping every
// other byte; a block without a readable orientation tag is left as it is.
void NeutraliseExifOrientation(std::string& exif);

// The data of the first chunk of the 4-letter type in a PNG stream, or "" when there is none
// (or the stream is malformed before it).
std::string FindPngChunk(std::string_view png, std::string_view type);

// The PNG stream with a chunk of the given type and data inserted before its first IDAT chunk
// (where eXIf must be). Throws marlith::Error when the stream has no IDAT chunk.
std::string InsertPngChunk(std::string_view png, std::string_view type, std::string_view data);

// Photoshop image resource blocks (TIFF tag 34377): the EXIF resource (ID 1058) of a block
// list, or "" when there is none; and a block list holding exif as that one resource.
std::string ExifFromPhotoshopResources(std::string_view resources);
std::string PhotoshopResourcesWithExif(std::string_view exif);

}  // namespace marlith
