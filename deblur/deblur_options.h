// The marlith-deblur command line read into settings: GNU long and short options over CLI11,
// every number and choice checked here so that a bad one is refused with the option's name
// before any file is touched.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "marlith/deconvolve.hpp"
#include "marlith/kernels.hpp"

namespace marlith {

struct LoadedImage;

// The sample depth of the results: the input's, or one for every result.
enum class DepthChoice { kSame, k8, k16, kFloat };

enum class Verbosity { kQuiet, kNormal, kVerbose };

struct DeblurSettings {
  std::string kernelPath;                // as given after -k: a file, or a generator's spec
  std::optional<KernelSpec> kernelSpec;  // when kernelPath is a spec ("gaussian:2.5", ...)
  std::string kernelOut;  // --kernel-out: where the kernel the run used is written; empty: not
  std::vector<std::string> inputs;
  // A file (one input only) or a folder (several inputs, or a name ending in '/' or naming a
  // folder that exists). Empty: each result beside its input, named "<stem>-deblurred<ext>".
  std::string output;
  // The extension (without its dot) of results written to a folder or under a default name;
  // empty: the input's.
  std::string format;
  // The engine's options, defaults from the API's record; progress is left empty here.
  DeconvolveOptions engine;
  // --colorspace: how the samples encode light, for every image; empty (auto): what each file
  // says (image/tone_curve.h), which then sets engine.colorspace and engine.toneCurve.
  std::optional<Colorspace> colorspace;
  // --mask: an image of every input's size whose samples weigh the image's (0: not observed,
  // 1: as usual; grey for every channel, or colour channel by channel); empty: none.
  std::string maskPath;
  // The mask, read once by the run before the images (RestoreImage uses it when set).
  std::shared_ptr<const LoadedImage> mask;
  DepthChoice depth = DepthChoice::kSame;
  int jpegQuality = 95;
  int jobs = 1;
  Verbosity verbosity = Verbosity::kNormal;
  bool forceProgress = false;  // --progress: even when standard error is not a terminal
  bool skipExisting = false;   // --skip-existing: images whose output exists are left out
};

// What the command line asks for.
struct ParsedCommandLine {
  enum class Action { kRun, kHelp, kVersion, kUsageError };
  Action action = Action::kUsageError;
  DeblurSettings settings;  // meaningful for kRun
  std::string error;        // for kUsageError: one line naming the option or argument at fault
};

// Parses argv[0..argc) (argv[0] the program's name). Reads no file and prints nothing: help,
// version and usage errors come back as the action. Throws nothing but std::bad_alloc.
ParsedCommandLine ParseDeblurCommandLine(int argc, const char* const* argv);

// The text --help prints, with the defaults of DeconvolveOptions.
std::string DeblurHelpText();

// "marlith-deblur <version>".
std::string DeblurVersionText();

}  // namespace marlith
