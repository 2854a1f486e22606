// marlith._core: the options API (marlith/deconvolve.hpp) for numpy arrays. The public
// functions in marlith/__init__.py check and shape the arguments; this module maps them onto
// the C++ views and options, releases the GIL while the engine runs, and turns the library's
// exceptions into Python ones.
#define PY_SSIZE_T_CLEAN  // sizes of "s#" arguments are Py_ssize_t
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "marlith/deconvolve.hpp"
#include "marlith/kernels.hpp"

namespace py = pybind11;

namespace {

// The option words Python uses for the library's enumerations, in the enumerations' order.
constexpr std::array<const char*, 3> kBoundaryWords{"periodic", "smooth", "unknown"};
constexpr std::array<const char*, 2> kMarginsWords{"exact", "fast"};
constexpr std::array<const char*, 2> kOriginWords{"center", "support"};
constexpr std::array<const char*, 2> kColorspaceWords{"linear", "srgb"};
constexpr std::array<const char*, 2> kNoiseModelWords{"gaussian", "poisson"};

template <typename Enum, std::size_t N>
Enum Choice(const std::string& word, const std::array<const char*, N>& words, const char* name) {
  for (std::size_t i = 0; i < N; ++i)
    if (word == words[i]) return static_cast<Enum>(i);
  std::string choices;
  for (std::size_t i = 0; i < N; ++i) choices += std::string(i ? " or '" : "'") + words[i] + "'";
  throw py::value_error(std::string("the ") + name + " option has no value '" + word + "' (" +
                        choices + ")");
}

template <typename Enum, std::size_t N>
const char* Word(Enum value, const std::array<const char*, N>& words) {
  return words[static_cast<std::size_t>(value)];
}

// A view of a 2-D (height, width) or 3-D (height, width, channels) array of one of the four
// sample types, strides converted from bytes to samples. The public functions hand only such
// arrays over; anything else is refused with TypeError rather than read wrongly.
template <typename View>
View ViewOf(const py::array& a, bool writeable) {
  View v;
  const py::dtype dt = a.dtype();
  if (dt.equal(py::dtype::of<std::uint8_t>()))
    v.type = marlith::SampleType::kUInt8;
  else if (dt.equal(py::dtype::of<std::uint16_t>()))
    v.type = marlith::SampleType::kUInt16;
  else if (dt.equal(py::dtype::of<float>()))
    v.type = marlith::SampleType::kFloat32;
  else if (dt.equal(py::dtype::of<double>()))
    v.type = marlith::SampleType::kFloat64;
  else
    throw py::type_error("the image's samples must be native uint8, uint16, float32 or float64");
  if (a.ndim() != 2 && a.ndim() != 3) throw py::type_error("the image must be 2-D or 3-D");
  const py::ssize_t size = a.itemsize();
  std::array<std::ptrdiff_t, 3> strides{0, 0, 0};
  for (py::ssize_t i = 0; i < a.ndim(); ++i) {
    if (a.strides(i) % size != 0) throw py::type_error("the image's strides must be whole samples");
    strides[i] = a.strides(i) / size;
  }
  const py::ssize_t height = a.shape(0), width = a.shape(1);
  const py::ssize_t channels = a.ndim() == 3 ? a.shape(2) : 1;
  constexpr py::ssize_t kMax = std::numeric_limits<int32_t>::max();
  if (height > kMax || width > kMax || channels > kMax) {
    throw py::value_error("the image of " + std::to_string(height) + " x " + std::to_string(width) +
                          " x " + std::to_string(channels) + " samples is too large");
  }
  if (writeable && !a.writeable()) throw py::value_error("the output is read-only");
  v.data = const_cast<void*>(a.data());
  v.width = static_cast<int32_t>(width);
  v.height = static_cast<int32_t>(height);
  v.channels = static_cast<int32_t>(channels);
  v.rowStride = strides[0];
  v.columnStride = strides[1];
  v.channelStride = strides[2];
  return v;
}

// A Python exception caught in the progress callback, held (with the GIL) until the library
// has unwound and the exception can be raised again.
class PendingError {
 public:
  PendingError() = default;
  PendingError(const PendingError&) = delete;
  PendingError& operator=(const PendingError&) = delete;
  ~PendingError() {
    Py_XDECREF(type_);
    Py_XDECREF(value_);
    Py_XDECREF(trace_);
  }
  // Takes the error indicator. Needs the GIL.
  void Fetch() { PyErr_Fetch(&type_, &value_, &trace_); }
  bool Held() const { return type_ != nullptr; }
  // Sets the error indicator again and throws it to pybind11. Needs the GIL.
  [[noreturn]] void Raise() {
    PyErr_Restore(type_, value_, trace_);
    type_ = value_ = trace_ = nullptr;
    throw py::error_already_set();
  }

 private:
  PyObject* type_ = nullptr;
  PyObject* value_ = nullptr;
  PyObject* trace_ = nullptr;
};

// The library calls back at most about every 10 ms (from the thread that called Deconvolve);
// each call takes the GIL, lets Python run its signal handlers (so that Ctrl+C raises
// KeyboardInterrupt) and calls the caller's progress function. An exception from either stops
// the run.
marlith::ProgressCallback Progress(const py::object& callable, PendingError& pending) {
  return [callable = callable.ptr(), &pending](std::string_view phase, double fraction) {
    py::gil_scoped_acquire gil;
    if (PyErr_CheckSignals() == 0) {
      if (callable == Py_None) return true;
      PyObject* result = PyObject_CallFunction(callable, "s#d", phase.data(),
                                               static_cast<Py_ssize_t>(phase.size()), fraction);
      if (result) {
        Py_DECREF(result);
        return true;
      }
    }
    pending.Fetch();
    return false;
  };
}

// A (depth, height, width) volume's view: the image view of an array read as (Z, Y, X).
template <typename Volume, typename View>
Volume VolumeOf(const py::array& a, bool writeable) {
  if (a.ndim() != 3) throw py::type_error("the volume must be 3-D");
  const View v = ViewOf<View>(a, writeable);  // height = Z, width = Y, channels = X
  return {v.data,     v.type,        v.channels,   v.width,
          v.height,   v.channelStride, v.columnStride, v.rowStride};
}

// Deconvolve over a volume: (depth, height, width) arrays and kernel.
marlith::DeconvolveReport DeconvolveVolume(const py::array& image,
                                           const py::array_t<double, py::array::c_style>& kernel,
                                           const py::array& output,
                                           const marlith::DeconvolveOptions& options) {
  const auto in = VolumeOf<marlith::ConstVolumeView, marlith::ConstImageView>(image, false);
  const auto out = VolumeOf<marlith::VolumeView, marlith::ImageView>(output, true);
  constexpr py::ssize_t kMax = std::numeric_limits<int32_t>::max();
  if (kernel.shape(0) > kMax || kernel.shape(1) > kMax || kernel.shape(2) > kMax)
    throw py::value_error("the kernel is too large");
  const marlith::VolumeKernelView k{{kernel.data(), static_cast<std::size_t>(kernel.size())},
                                    static_cast<int32_t>(kernel.shape(2)),
                                    static_cast<int32_t>(kernel.shape(1)),
                                    static_cast<int32_t>(kernel.shape(0))};
  py::gil_scoped_release release;
  return marlith::Deconvolve(in, k, out, options);
}

py::dict Deconvolve(const py::array& image, const py::array_t<double, py::array::c_style>& kernel,
                    const py::array& output, std::optional<double> noise,
                    const std::string& boundary, const std::string& margins,
                    const std::string& kernelOrigin, bool refineKernel, int32_t threads,
                    const py::object& progress, const std::string& colorspace,
                    const py::object& mask, const std::string& noiseModel,
                    std::optional<double> offset, double voxelAspect) {
  const bool volume = kernel.ndim() == 3;
  if (kernel.ndim() != 2 && !volume) throw py::type_error("the kernel must be 2-D or 3-D");
  marlith::DeconvolveOptions options;
  options.noise = noise;
  options.boundary = Choice<marlith::Boundary>(boundary, kBoundaryWords, "boundary");
  options.margins = Choice<marlith::Margins>(margins, kMarginsWords, "margins");
  options.kernelOrigin = Choice<marlith::KernelOrigin>(kernelOrigin, kOriginWords, "kernel_origin");
  options.refineKernel = refineKernel;
  options.colorspace = Choice<marlith::Colorspace>(colorspace, kColorspaceWords, "colorspace");
  options.threads = threads;
  options.noiseModel = Choice<marlith::NoiseModel>(noiseModel, kNoiseModelWords, "noise_model");
  options.offset = offset;
  options.voxelAspect = voxelAspect;
  if (!mask.is_none()) options.mask = ViewOf<marlith::ConstImageView>(mask.cast<py::array>(), false);
  PendingError pending;
  options.progress = Progress(progress, pending);
  marlith::DeconvolveReport report;
  try {
    if (volume) {
      report = DeconvolveVolume(image, kernel, output, options);
    } else {
      const auto in = ViewOf<marlith::ConstImageView>(image, false);
      const auto out = ViewOf<marlith::ImageView>(output, true);
      if (kernel.shape(0) > std::numeric_limits<int32_t>::max() ||
          kernel.shape(1) > std::numeric_limits<int32_t>::max())
        throw py::value_error("the kernel is too large");
      const marlith::KernelView k{{kernel.data(), static_cast<std::size_t>(kernel.size())},
                                  static_cast<int32_t>(kernel.shape(1)),
                                  static_cast<int32_t>(kernel.shape(0))};
      py::gil_scoped_release release;
      report = marlith::Deconvolve(in, k, out, options);
    }
  } catch (const marlith::Cancelled&) {
    if (pending.Held()) pending.Raise();
    throw;
  }
  py::dict result;
  result["noise_level"] = report.noiseLevel;
  result["noise_strength"] = report.noiseStrength;
  result["offset"] = report.offset;
  return result;
}

py::tuple EstimateNoise(const py::array& image) {
  const auto view = ViewOf<marlith::ConstImageView>(image, false);
  marlith::NoiseReport report;
  {
    py::gil_scoped_release release;
    report = marlith::EstimateNoise(view);
  }
  return py::make_tuple(report.level, report.strength);
}

// The kernel a spec names ("gaussian:1.6", "disk:3", "motion:15,30", "widefield:..."), as a
// (height, width) float64 array, or (depth, height, width) for a PSF of several planes.
py::array_t<double> ShapeKernel(const std::string& spec) {
  marlith::Kernel k;
  {
    py::gil_scoped_release release;
    k = marlith::MakeKernel(marlith::ParseKernelSpec(spec));
  }
  py::array_t<double> out = k.depth > 1 ? py::array_t<double>({k.depth, k.height, k.width})
                                        : py::array_t<double>({k.height, k.width});
  std::copy(k.values.begin(), k.values.end(), out.mutable_data());
  return out;
}

// EstimateGaussianSigma of a (height, width, channels) float64 array in linear light.
double EstimateGaussianSigma(const py::array_t<double, py::array::c_style>& light) {
  std::vector<double> planes(static_cast<std::size_t>(light.size()));
  const auto h = light.shape(0), w = light.shape(1), c = light.shape(2);
  for (py::ssize_t i = 0; i < h * w; ++i)
    for (py::ssize_t k = 0; k < c; ++k) planes[k * h * w + i] = light.data()[i * c + k];
  py::gil_scoped_release release;
  return marlith::EstimateGaussianSigma(planes, static_cast<int32_t>(w), static_cast<int32_t>(h),
                                        static_cast<int32_t>(c));
}

// The options' defaults, read from the C++ options record, in the Python words.
py::dict DefaultOptions() {
  const marlith::DeconvolveOptions defaults;
  py::dict d;
  d["noise"] = defaults.noise ? py::cast(*defaults.noise) : py::str("auto");
  d["boundary"] = Word(defaults.boundary, kBoundaryWords);
  d["margins"] = Word(defaults.margins, kMarginsWords);
  d["kernel_origin"] = Word(defaults.kernelOrigin, kOriginWords);
  d["refine_kernel"] = defaults.refineKernel;
  d["colorspace"] = Word(defaults.colorspace, kColorspaceWords);
  d["noise_model"] = Word(defaults.noiseModel, kNoiseModelWords);
  d["offset"] = defaults.offset ? py::cast(*defaults.offset) : py::none();
  d["voxel_aspect"] = defaults.voxelAspect;
  // The library's 0 ("every core") is None in Python.
  d["threads"] = defaults.threads == 0 ? py::none() : py::cast(defaults.threads);
  return d;
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "marlith's compiled core; use the functions of the marlith package.";
  // marlith::Error (and Cancelled, when no Python exception caused it) is refused input: the
  // message is the library's one line.
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const marlith::Error& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::bad_alloc&) {  // pybind11 would say "std::bad_alloc"
      PyErr_SetString(PyExc_MemoryError, "not enough memory to restore the image");
    }
  });
  m.def("deconvolve", &Deconvolve, py::arg("image"), py::arg("kernel"), py::arg("output"),
        py::arg("noise"), py::arg("boundary"), py::arg("margins"), py::arg("kernel_origin"),
        py::arg("refine_kernel"), py::arg("threads"), py::arg("progress"), py::arg("colorspace"),
        py::arg("mask") = py::none(), py::arg("noise_model") = "gaussian",
        py::arg("offset") = py::none(), py::arg("voxel_aspect") = 1.0);
  m.def("estimate_noise", &EstimateNoise, py::arg("image"));
  m.def("default_options", &DefaultOptions);
  m.def("shape_kernel", &ShapeKernel, py::arg("spec"));
  m.def("estimate_gaussian_sigma", &EstimateGaussianSigma, py::arg("light"));
  m.attr("__version__") = MARLITH_VERSION;
}
