#include "deblur/output_plan.h"

#include <filesystem>
#include <map>

#include "deblur/image_restore.h"
#include "image/image_io.h"
#include "marlith/error.hpp"

namespace marlith {

namespace fs = std::filesystem;

namespace {

bool NamesFolder(const std::string& path) {
  std::error_code ignored;
  return path.back() == '/' || fs::is_directory(path, ignored);
}

// The file name of input with its extension replaced by format's, when given.
fs::path ResultName(const fs::path& input, const std::string& format, const std::string& suffix) {
  fs::path name = input.stem();
  name += suffix;
  name += format.empty() ? input.extension() : fs::path("." + format);
  return name;
}

// The path that names the same file as path when it exists, or would: symbolic links and
// "." and ".." resolved as far as the path exists.
fs::path Canonical(const std::string& path) {
  std::error_code ec;
  fs::path p = fs::weakly_canonical(fs::absolute(path, ec), ec);
  return ec ? fs::path(path).lexically_normal() : p;
}

bool SameFile(const std::string& a, const std::string& b) {
  std::error_code ec;
  if (fs::exists(a, ec) && fs::exists(b, ec)) return fs::equivalent(a, b, ec) && !ec;
  return Canonical(a) == Canonical(b);
}

}  // namespace

std::vector<PlannedImage> PlanOutputs(const DeblurSettings& s) {
  const bool toFolder = !s.output.empty() && NamesFolder(s.output);
  if (!s.output.empty() && !toFolder) {
    if (s.inputs.size() > 1)
      throw UsageProblem("--output: " + s.output +
                         " is not a folder; several images need a folder to go into "
                         "(a name ending in '/' or one that exists)");
    if (!s.format.empty())
      throw UsageProblem("--format: the output " + s.output +
                         " is a file, whose name gives its type; --format is for a folder");
  }
  std::vector<PlannedImage> plan;
  for (const std::string& input : s.inputs) {
    const fs::path in(input);
    fs::path out;
    if (s.output.empty())
      out = in.parent_path() / ResultName(in.filename(), s.format, "-deblurred");
    else if (toFolder)
      out = fs::path(s.output) / ResultName(in.filename(), s.format, "");
    else
      out = s.output;
    plan.push_back({input, out.string()});
  }

  std::map<fs::path, std::string> outputs;
  for (const PlannedImage& p : plan) {
    for (const std::string& other : s.inputs)
      if (SameFile(p.output, other))
        throw UsageProblem("the result of " + p.input + " would be written over the image " +
                           other + "; choose another --output");
    if (SameFile(p.output, s.kernelPath))
      throw UsageProblem("the result of " + p.input + " would be written over the kernel " +
                         s.kernelPath + "; choose another --output");
    const auto [at, added] = outputs.emplace(Canonical(p.output), p.input);
    if (!added)
      throw UsageProblem("the images " + at->second + " and " + p.input +
                         " would both be written to " + p.output);
  }
  for (const PlannedImage& p : plan) {
    const ImageFileType type = ImageFileTypeFromPath(p.output);
    if (type == ImageFileType::kUnknown && !s.format.empty()) {
      throw UsageProblem("--format: '" + s.format +
                         "' is not a type marlith-deblur writes (png, jpg, tif, webp, bmp, pgm, "
                         "ppm, pnm)");
    }
    if (type == ImageFileType::kUnknown) {
      throw Error(p.output + ": cannot tell which file type to write from the name" +
                  (s.output.empty() || toFolder ? " (give one with --format)" : ""));
    }
    const SampleDepth depth = s.depth == DepthChoice::k8    ? SampleDepth::k8
                              : s.depth == DepthChoice::k16 ? SampleDepth::k16
                                                            : SampleDepth::kFloat;
    if (s.depth != DepthChoice::kSame && !ImageFileTypeHolds(type, depth))
      throw UsageProblem(std::string("--depth: ") + ImageFileTypeName(type) + " files such as " +
                         p.output + " cannot hold " + SampleDepthWords(depth) + " samples");
  }
  if (toFolder) {
    // A folder named for the results is made when missing, with the folders above it (as
    // mkdir -p would), once the command line has been found consistent.
    std::error_code ec;
    fs::create_directories(s.output, ec);
    if (ec) throw Error(s.output + ": cannot create the folder: " + ec.message());
  }
  for (const PlannedImage& p : plan) CheckOutputPath(p.output);
  return plan;
}

}  // namespace marlith
