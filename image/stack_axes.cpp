// The axes of ImageJ hyperstacks and OME-TIFF files, from their descriptions.
#include "image/stack_axes.h"

#include <charconv>
#include <cstdlib>

namespace marlith {

namespace {

// The value of "key=value" on a line of its own (ImageJ), or "" when absent.
std::string_view ImageJValue(std::string_view text, std::string_view key) {
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = text.substr(at, end - at);
    if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == '=')
      return line.substr(key.size() + 1);
    at = end + 1;
  }
  return {};
}

// The value of attribute name="..." inside the first <Pixels ...> element, or "".
std::string_view PixelsAttribute(std::string_view xml, std::string_view name) {
  size_t start = xml.find("<Pixels ");
  if (start == std::string_view::npos) start = xml.find(":Pixels ");  // a namespace prefix
  if (start == std::string_view::npos) return {};
  const std::string_view element = xml.substr(start, xml.find('>', start) - start);
  for (size_t at = element.find(name); at != std::string_view::npos;
       at = element.find(name, at + 1)) {
    const size_t quote = at + name.size() + 1;
    if ((element[at - 1] == ' ' || element[at - 1] == '\n' || element[at - 1] == '\t') &&
        element.substr(at + name.size()).starts_with("=\"")) {
      const size_t close = element.find('"', quote + 1);
      if (close != std::string_view::npos) return element.substr(quote + 1, close - quote - 1);
    }
  }
  return {};
}

double Number(std::string_view text) {
  double value = 0.0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && value > 0.0 ? value : 0.0;
}

int Count(std::string_view text) {
  int value = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && value > 0 ? value : 1;
}

}  // namespace

int StackAxes::PageOf(int z, int c, int t) const {
  int page = 0, stride = 1;
  for (const char axis : order) {
    const int index = axis == 'Z' ? z : axis == 'C' ? c : t;
    const int size = axis == 'Z' ? slices : axis == 'C' ? channels : frames;
    page += index * stride;
    stride *= size;
  }
  return page;
}

StackAxes ReadStackAxes(std::string_view description, int pages, double xResolution,
                        double yResolution, std::string* warning) {
  StackAxes axes;
  if (description.starts_with("ImageJ=")) {
    axes.kind = "ImageJ";
    axes.order = "CZT";
    axes.slices = Count(ImageJValue(description, "slices"));
    axes.channels = Count(ImageJValue(description, "channels"));
    axes.frames = Count(ImageJValue(description, "frames"));
    axes.dz = Number(ImageJValue(description, "spacing"));
    axes.unit = ImageJValue(description, "unit");
    if (xResolution > 0.0) axes.dx = 1.0 / xResolution;
    if (yResolution > 0.0) axes.dy = 1.0 / yResolution;
    // A plain stack of images= pages says neither slices nor frames: they are slices.
    if (axes.slices * axes.channels * axes.frames == 1) axes.slices = pages;
  } else if (description.find("<OME") != std::string_view::npos) {
    axes.kind = "OME-TIFF";
    axes.slices = Count(PixelsAttribute(description, "SizeZ"));
    axes.channels = Count(PixelsAttribute(description, "SizeC"));
    axes.frames = Count(PixelsAttribute(description, "SizeT"));
    const std::string_view order = PixelsAttribute(description, "DimensionOrder");
    if (order.size() == 5 && order.starts_with("XY")) axes.order = order.substr(2);
    axes.dx = Number(PixelsAttribute(description, "PhysicalSizeX"));
    axes.dy = Number(PixelsAttribute(description, "PhysicalSizeY"));
    axes.dz = Number(PixelsAttribute(description, "PhysicalSizeZ"));
    const std::string_view unit = PixelsAttribute(description, "PhysicalSizeXUnit");
    axes.unit = unit.empty() ? std::string("µm") : std::string(unit);
  } else {
    axes.slices = pages;
    return axes;
  }
  if (axes.slices * axes.channels * axes.frames != pages) {
    if (warning)
      *warning = "its " + axes.kind + " description gives " + std::to_string(axes.slices) +
                 " slices, " + std::to_string(axes.channels) + " channels and " +
                 std::to_string(axes.frames) + " frames, but the file holds " +
                 std::to_string(pages) + " pages: read as " + std::to_string(pages) + " slices";
    StackAxes plain;
    plain.slices = pages;
    plain.dx = axes.dx, plain.dy = axes.dy, plain.dz = axes.dz, plain.unit = axes.unit;
    return plain;
  }
  return axes;
}

}  // namespace marlith
