#include "deblur/deblur_options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <limits>
#include <sstream>
#include <string_view>

namespace marlith {

namespace {

// A usage error: the option's name and what is wrong with its value.
struct UsageError {
  std::string message;
};

[[noreturn]] void Refuse(const std::string& option, const std::string& what) {
  throw UsageError{option + ": " + what};
}

std::string Quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

// What is wrong with text read as a number, with a hint for the usual slips.
std::string NotANumber(std::string_view text) {
  if (text.empty()) return "a number is missing";
  std::string what = Quoted(text) + " is not a number";
  if (text.find(',') != std::string_view::npos) return what + " (write the decimal point as '.')";
  if (text.find('%') != std::string_view::npos) return what + " (give it without a '%' sign)";
  return what;
}

// The whole of text as a finite number of at least 0.
double ParseNonNegative(const std::string& option, std::string_view text) {
  double value = 0.0;
  const char* end = text.data() + text.size();
  const auto [stop, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec == std::errc::invalid_argument || stop != end)
    Refuse(option, NotANumber(text));
  if (ec == std::errc::result_out_of_range || !std::isfinite(value))
    Refuse(option, Quoted(text) + " is not a finite number");
  if (value < 0.0) Refuse(option, "must be at least 0, not " + std::string(text));
  return value;
}

// The whole of text as a whole number in [lo, hi].
int ParseInteger(const std::string& option, std::string_view text, int lo, int hi) {
  long long value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, ec] = std::from_chars(text.data(), end, value);
  const std::string range = "from " + std::to_string(lo) + " to " + std::to_string(hi);
  if (text.empty() || ec == std::errc::invalid_argument || stop != end) {
    if (ec != std::errc::invalid_argument && stop != end && (*stop == '.' || *stop == ','))
      Refuse(option, Quoted(text) + " is not a whole number " + range);
    Refuse(option, NotANumber(text) + " (a whole number " + range + ")");
  }
  if (ec == std::errc::result_out_of_range || value < lo || value > hi)
    Refuse(option, std::string(text) + " is out of range: give a whole number " + range);
  return static_cast<int>(value);
}

template <typename T>
struct Choice {
  const char* name;
  T value;
};

template <typename T, size_t N>
T ParseChoice(const std::string& option, const std::string& text, const Choice<T> (&choices)[N]) {
  std::string names;
  for (const auto& c : choices) {
    if (text == c.name) return c.value;
    names += names.empty() ? "" : ", ";
    names += c.name;
  }
  Refuse(option, (text.empty() ? "give one of " : Quoted(text) + " is not one of ") + names);
}

constexpr Choice<Boundary> kBoundaries[] = {{"smooth", Boundary::kSmooth},
                                            {"periodic", Boundary::kPeriodic},
                                            {"unknown", Boundary::kUnknown}};
constexpr Choice<Margins> kMargins[] = {{"fast", Margins::kFast}, {"exact", Margins::kExact}};
constexpr Choice<KernelOrigin> kOrigins[] = {{"center", KernelOrigin::kCenter},
                                             {"support", KernelOrigin::kSupport}};
constexpr Choice<std::optional<Colorspace>> kColorspaces[] = {
    {"auto", std::nullopt}, {"linear", Colorspace::kLinear}, {"srgb", Colorspace::kSrgb}};
constexpr Choice<NoiseModel> kNoiseModels[] = {{"gaussian", NoiseModel::kGaussian},
                                              {"poisson", NoiseModel::kPoisson}};
constexpr Choice<DepthChoice> kDepths[] = {{"same", DepthChoice::kSame},
                                           {"8", DepthChoice::k8},
                                           {"16", DepthChoice::k16},
                                           {"float", DepthChoice::kFloat}};

template <typename T, size_t N>
const char* NameOf(T value, const Choice<T> (&choices)[N]) {
  for (const auto& c : choices)
    if (c.value == value) return c.name;
  return "?";
}

// The option strings as typed; empty when not given.
struct RawOptions {
  std::string kernel, kernelOut, output, format, noise, boundary, margins, origin, threads, jobs,
      depth, jpegQuality, colorspace, mask, noiseModel, offset;
  bool refine = false, quiet = false, verbose = false, progress = false, skipExisting = false;
  std::vector<std::string> inputs;
};

// The CLI11 application reading into raw. Values stay text so that each is checked here with
// the option's own words.
void DefineOptions(CLI::App& app, RawOptions& raw) {
  // GNU tools let a repeated option's last value win.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_help_flag("-h,--help");
  app.set_version_flag("-V,--version", DeblurVersionText());
  app.add_option("-k,--kernel", raw.kernel);
  app.add_option("--kernel-out", raw.kernelOut);
  app.add_option("-o,--output", raw.output);
  app.add_option("-f,--format", raw.format);
  app.add_option("-n,--noise", raw.noise);
  app.add_option("-b,--boundary", raw.boundary);
  app.add_option("-m,--margins", raw.margins);
  app.add_option("--kernel-origin", raw.origin);
  app.add_option("--colorspace", raw.colorspace);
  app.add_option("--noise-model", raw.noiseModel);
  app.add_option("--offset", raw.offset);
  app.add_option("--mask", raw.mask);
  app.add_flag("-r,--refine-kernel", raw.refine);
  app.add_option("-t,--threads", raw.threads);
  app.add_option("-j,--jobs", raw.jobs);
  app.add_option("-d,--depth", raw.depth);
  app.add_option("--jpeg-quality", raw.jpegQuality);
  app.add_flag("-q,--quiet", raw.quiet);
  app.add_flag("-v,--verbose", raw.verbose);
  app.add_flag("--progress", raw.progress);
  app.add_flag("--skip-existing", raw.skipExisting);
  app.add_option("images", raw.inputs)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// A parse failure in the command's own words (CLI11's speak of "1 required TEXT missing").
std::string DescribeParseError(const CLI::ParseError& e) {
  std::string message = e.what();
  if (const size_t newline = message.find('\n'); newline != std::string::npos)
    message.resize(newline);
  const std::string kind = e.get_name();
  // By type: CLI11 names some ExtrasErrors after the program instead of their kind.
  if (dynamic_cast<const CLI::ExtrasError*>(&e)) {
    const std::string prefix = "The following argument was not expected: ";
    if (message.rfind(prefix, 0) == 0) return "unknown option " + message.substr(prefix.size());
    // CLI11 lists them last first.
    std::vector<std::string> names;
    std::istringstream words(message.substr(message.find(':') + 2));
    for (std::string word; words >> word;) names.insert(names.begin(), word);
    std::string listed;
    for (const std::string& name : names) listed += (listed.empty() ? "" : " ") + name;
    return "unknown options " + listed;
  }
  // CLI11 names the option at fault as its first word starting with '-' ("--kernel: 1 required
  // TEXT missing", "Could not convert: --quiet = x").
  std::string option;
  std::istringstream words(message);
  for (std::string word; option.empty() && words >> word;)
    if (word.starts_with("-")) option = word.substr(0, word.find_first_of(":,"));
  if (kind == "ArgumentMismatch" && !option.empty())
    return option + ": the value is missing (give it after the option)";
  if (kind == "ConversionError" && !option.empty()) return option + " takes no value";
  return "cannot read the command line: " + message;
}

// A long option's value attached with '=' and empty ("--output="): refused here, since CLI11
// would take the next argument as the value instead (and a slip would write one image's result
// over another). Options not defined are left to CLI11, which calls them unknown.
void RefuseEmptyAttachedValues(int argc, const char* const* argv, const CLI::App& app) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") return;
    const size_t equals = arg.find('=');
    if (!arg.starts_with("--") || equals == std::string_view::npos || equals + 1 != arg.size())
      continue;
    const std::string name(arg.substr(0, equals));
    if (app.get_option_no_throw(name)) Refuse(name, "the value after '=' is empty");
  }
}

DeblurSettings Check(const RawOptions& raw, const CLI::App& app) {
  auto was = [&](const char* name) { return app.count(name) > 0; };
  DeblurSettings s;
  if (was("--output")) {
    if (raw.output.empty()) Refuse("--output", "the file name is empty");
    s.output = raw.output;
  }
  if (was("--format")) {
    s.format = raw.format;
    if (!s.format.empty() && s.format.front() == '.') s.format.erase(0, 1);
    if (s.format.empty() || s.format.find('/') != std::string::npos)
      Refuse("--format",
             "give a file type's extension (png, tif, jpg, ...), not " + Quoted(raw.format));
  }
  if (was("--noise") && raw.noise != "auto") {
    if (raw.noise.empty()) Refuse("--noise", "give auto or a number");
    s.engine.noise = ParseNonNegative("--noise", raw.noise);
  }
  if (was("--boundary")) s.engine.boundary = ParseChoice("--boundary", raw.boundary, kBoundaries);
  if (was("--margins")) s.engine.margins = ParseChoice("--margins", raw.margins, kMargins);
  if (was("--kernel-origin")) {
    s.engine.kernelOrigin = raw.origin == "centre"
                                ? KernelOrigin::kCenter
                                : ParseChoice("--kernel-origin", raw.origin, kOrigins);
  }
  if (was("--colorspace")) s.colorspace = ParseChoice("--colorspace", raw.colorspace, kColorspaces);
  if (was("--noise-model"))
    s.engine.noiseModel = ParseChoice("--noise-model", raw.noiseModel, kNoiseModels);
  if (was("--offset") && raw.offset != "auto") {
    if (raw.offset.empty()) Refuse("--offset", "give auto or a number");
    s.engine.offset = ParseNonNegative("--offset", raw.offset);
  }
  if (was("--mask")) {
    if (raw.mask.empty()) Refuse("--mask", "the file name is empty");
    s.maskPath = raw.mask;
  }
  s.engine.refineKernel = raw.refine;
  if (was("--threads")) s.engine.threads = ParseInteger("--threads", raw.threads, 0, 4096);
  if (was("--jobs")) s.jobs = ParseInteger("--jobs", raw.jobs, 1, 4096);
  if (was("--depth")) s.depth = ParseChoice("--depth", raw.depth, kDepths);
  if (was("--jpeg-quality"))
    s.jpegQuality = ParseInteger("--jpeg-quality", raw.jpegQuality, 1, 100);
  if (raw.quiet && raw.verbose) throw UsageError{"--quiet and --verbose contradict each other"};
  s.verbosity = raw.quiet     ? Verbosity::kQuiet
                : raw.verbose ? Verbosity::kVerbose
                              : Verbosity::kNormal;
  s.forceProgress = raw.progress;
  s.skipExisting = raw.skipExisting;
  if (raw.quiet && raw.progress) throw UsageError{"--quiet and --progress contradict each other"};
  // Said last: a value an option took by mistake can leave the images empty.
  if (!was("--kernel")) throw UsageError{"no kernel given (-k FILE)"};
  if (raw.kernel.empty()) Refuse("--kernel", "the file name is empty");
  s.kernelPath = raw.kernel;
  if (IsKernelSpec(raw.kernel)) {
    try {
      s.kernelSpec = ParseKernelSpec(raw.kernel);
    } catch (const Error& e) {
      Refuse("--kernel", e.what());
    }
  }
  if (raw.inputs.empty()) throw UsageError{"no image given"};
  s.inputs = raw.inputs;
  for (const auto& input : s.inputs)
    if (input.empty()) throw UsageError{"an image's file name is empty"};
  if (was("--kernel-out")) {
    if (raw.kernelOut.empty()) Refuse("--kernel-out", "the file name is empty");
    if ((s.engine.refineKernel || (s.kernelSpec && s.kernelSpec->automatic)) && s.inputs.size() > 1)
      Refuse("--kernel-out",
             "each image gets its own kernel (gaussian:auto, --refine-kernel); give one image");
    s.kernelOut = raw.kernelOut;
  }
  return s;
}

}  // namespace

ParsedCommandLine ParseDeblurCommandLine(int argc, const char* const* argv) {
  ParsedCommandLine result;
  if (argc < 2) {
    result.error = "no image given";
    return result;
  }
  CLI::App app("marlith-deblur", "marlith-deblur");
  RawOptions raw;
  try {
    DefineOptions(app, raw);
    RefuseEmptyAttachedValues(argc, argv, app);
    app.parse(argc, argv);
    result.settings = Check(raw, app);
    result.action = ParsedCommandLine::Action::kRun;
  } catch (const CLI::CallForHelp&) {
    result.action = ParsedCommandLine::Action::kHelp;
  } catch (const CLI::CallForVersion&) {
    result.action = ParsedCommandLine::Action::kVersion;
  } catch (const CLI::ParseError& e) {
    result.error = DescribeParseError(e);
  } catch (const UsageError& e) {
    result.error = e.message;
  } catch (const CLI::Error& e) {
    result.error = e.what();
  }
  return result;
}

std::string DeblurVersionText() { return std::string("marlith-deblur ") + MARLITH_VERSION; }

std::string DeblurHelpText() {
  const DeconvolveOptions d;
  const DeblurSettings s;
  const std::string noise = d.noise ? std::to_string(*d.noise) : "auto";
  return std::string(
             "Usage: marlith-deblur -k KERNEL [OPTION]... IMAGE...\n"
             "Restores images blurred by a known blur (non-blind deconvolution).\n"
             "\n"
             "  -k, --kernel FILE|SHAPE    the blur kernel: an image (its luminance: draw it in\n"
             "                             any colour, light on dark), a text or CSV matrix\n"
             "                             (.txt, .csv, .dat, .asc) or a NumPy array (.npy);\n"
             "                             or a shape: gaussian:SIGMA, gaussian:auto (sigma\n"
             "                             estimated from each image), disk:RADIUS,\n"
             "                             motion:LENGTH,ANGLE (degrees anticlockwise)\n"
             "      --kernel-out FILE      write the kernel the run used (.npy, .tif, .png)\n"
             "  -o, --output PATH          the result's file (one IMAGE), or a folder to write\n"
             "                             each result into under its image's name; default:\n"
             "                             beside each image as NAME-deblurred.EXT\n"
             "  -f, --format EXT           file type of results written into a folder or\n"
             "                             beside their images (png, tif, jpg, webp, pgm, ...);\n"
             "                             default: the image's own\n"
             "  -n, --noise auto|NUMBER    noise strength: smaller restores more detail and\n"
             "                             more noise (0.1 suits 1 % noise); auto estimates it\n"
             "                             from each image [") +
         noise +
         "]\n"
         "  -b, --boundary smooth|periodic|unknown\n"
         "                             smooth margins for photographs, the image taken\n"
         "                             as periodic (circularly blurred test images), or\n"
         "                             the blur reaching past the frame, whose margin is\n"
         "                             restored unobserved [" +
         NameOf(d.boundary, kBoundaries) +
         "]\n"
         "  -m, --margins fast|exact   smooth margins widened to fast transform sizes and\n"
         "                             fitted directly, or three kernel sizes exactly [" +
         NameOf(d.margins, kMargins) +
         "]\n"
         "      --kernel-origin center|support\n"
         "                             the kernel array's centre sample is its origin, or\n"
         "                             its drawn support is centred [" +
         NameOf(d.kernelOrigin, kOrigins) +
         "]\n"
         "      --colorspace auto|linear|srgb\n"
         "                             how the samples encode light: restored in linear\n"
         "                             light, then encoded back; auto: as the file says\n"
         "                             (ICC profile, PNG chunks; floating point: linear;\n"
         "                             else sRGB) [" +
         NameOf(s.colorspace, kColorspaces) +
         "]\n"
         "      --noise-model gaussian|poisson\n"
         "                             poisson: the samples are photon counts over a camera\n"
         "                             offset (fluorescence microscopes): each weighed by its\n"
         "                             photon noise, results non-negative; linear light [" +
         NameOf(d.noiseModel, kNoiseModels) +
         "]\n"
         "      --offset auto|N        the camera's baseline in sample units (poisson);\n"
         "                             auto: estimated from the darkest samples [auto]\n"
         "      --mask FILE            weights of the samples, an image of each IMAGE's\n"
         "                             size: black samples are left out of the fit (dust,\n"
         "                             dead pixels, text), white ones count fully; grey for\n"
         "                             every channel or colour channel by channel\n"
         "  -r, --refine-kernel        re-estimate the kernel from a first restoration and\n"
         "                             restore again with it [" +
         (d.refineKernel ? "on" : "off") +
         "]\n"
         "  -t, --threads N            threads in all, shared among the jobs; 0: every\n"
         "                             core [" +
         std::to_string(d.threads) +
         "]\n"
         "  -j, --jobs N               images restored at once (each needs its own memory) [" +
         std::to_string(s.jobs) +
         "]\n"
         "  -d, --depth same|8|16|float\n"
         "                             samples of the results; same: the image's (or the\n"
         "                             deepest the output's type holds) [" +
         NameOf(s.depth, kDepths) +
         "]\n"
         "      --jpeg-quality N       JPEG and WebP quality, 1 to 100 [" +
         std::to_string(s.jpegQuality) +
         "]\n"
         "      --skip-existing        leave out images whose result file exists already\n"
         "                             (to go on with a batch that was stopped)\n"
         "  -q, --quiet                print errors only\n"
         "  -v, --verbose              print each image's size, noise level and strength,\n"
         "                             and the time of each phase\n"
         "      --progress             show progress even when standard error is not a\n"
         "                             terminal (it is shown on a terminal anyway)\n"
         "  -h, --help                 print this help and exit\n"
         "  -V, --version              print the version and exit\n"
         "\n"
         "Use -- to end the options (before images whose names start with '-').\n"
         "Results are written whole or not at all, never over an image or the kernel.\n"
         "\n"
         "Examples:\n"
         "  marlith-deblur -k kernel.png -o sharp.png blurred.png\n"
         "  marlith-deblur -k psf.npy --depth float -o restored.tif cells.tif\n"
         "  marlith-deblur -k kernel.png -o restored/ --jobs 2 *.jpg\n"
         "  marlith-deblur -k kernel.csv --noise 0.05 --boundary periodic test.png\n"
         "  marlith-deblur -k gaussian:auto -v -o sharp.png soft.png\n"
         "\n"
         "Exit status: 0 when every image was restored; 1 when an image, the kernel or an\n"
         "output could not be used (the message names the file); 2 for a usage error;\n"
         "130 when interrupted (Ctrl-C).\n";
}

}  // namespace marlith
