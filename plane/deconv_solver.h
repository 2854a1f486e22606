// The frequency-domain deconvolution solver: half-quadratic splitting under a two-piece prior
// on image gradients, with the kernel, gradient-filter and image spectra precomputed once.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "plane/fourier_transform.h"

namespace marlith {

// The settings shared by solver kinds. Setters store their values; the solve reads them.
class DeconvSolver {
 public:
  virtual ~DeconvSolver() = default;

  // Restores the latent plane for the given noise level (already scaled); returns 0.
  virtual int SolveWithNoise(double noise) = 0;
  // Gives the observed plane (working size, borrowed until the next SetImage).
  virtual void SetImage(const double* plane) = 0;
  // Copies a W x H plane of local-prior weights m and sets the local prior's weight.
  virtual void SetLocalPrior(std::span<const double> mask, double weight) = 0;
  // Prior weight, smooth-region window, threshold and count. Until SetLocalPrior gives a
  // local-prior weight plane, the plane reads as zero. Returns 0.
  virtual int SetIterationSettings(double weight, uint32_t windowWidth, uint32_t windowHeight,
                                   double threshold, uint32_t count) = 0;
  // The gradient prior: curvature a, threshold l, slope k; derives the offset b. Returns 0.
  virtual int SetPriorShape(double a, double l, double k) = 0;
  // Per-image preparation, after the kernel and image are set. Returns 0.
  virtual int PrepareWeights(uint32_t setting) = 0;
  // The solve's constants back to their defaults.
  virtual void ResetDefaults() = 0;

  // Solve constants.
  uint32_t iterationBudget = 50;  // inner rounds per beta: at most half of it
  double tolerance = 0.0005;
  double betaCap = 1048576.0;
  double betaStart = 1.0;
  double betaFactor = 2.0;
  double betaMax = 0.0;  // set by the solve

  // Settings.
  double localPriorWeight = 0.0;
  uint32_t smoothWindowWidth = 0;
  uint32_t smoothWindowHeight = 0;
  double smoothThreshold = 0.0;
  uint32_t smoothCount = 0;
  double priorSlope = 1.0;         // k
  double priorCurvature = 0.0001;  // a
  double priorThreshold = 0.5;     // l
  double priorOffset = 0.499975;   // b = k l - l (a l), so that the pieces meet at |x| = l
  uint32_t preparationSetting = 0;

  // Called by the solve after every inner round with the fraction of the solve done (beta
  // rounds done, plus the current one's inner rounds out of their limit, over the beta rounds
  // the solve will run). It may throw to abandon the solve; the solver stays usable.
  std::function<void(double)> progress;

  // What the last solve did: beta rounds and inner rounds in all.
  struct SolveStats {
    int outerRounds = 0;
    int innerRounds = 0;
    double innerSeconds = 0.0;  // wall time spent in inner rounds
  };
  SolveStats lastSolve;
};

// Minimiser of the two-piece prior for one gradient sample. g is the current gradient, d the
// observed image's gradient, m the local-prior weight, t = 1 / beta, s = q / beta; k, a, b, l
// the prior's slope, curvature, offset and threshold. Returns the candidate of lower energy
// (the linear-piece one on a tie).
double PiecewisePriorShrink(double g, double d, double m, double t, double s, double k, double a,
                            double b, double l);

// Spectra are stored as half spectra ((W / 2 + 1) x H complex values): the planes are real, so
// the other half is the conjugate mirror of this one and carries no information.
class SpectralDeconvSolver : public DeconvSolver {
 public:
  SpectralDeconvSolver() = default;
  ~SpectralDeconvSolver() override;

  // Stores the working size (even W and H) and the image plane (if any: SetKernel then forms the
  // numerator from it), makes the transform objects, resets the defaults and precomputes the
  // gradient spectra.
  // threads: threads for each transform and each pass over the planes; any count gives the
  // same element-wise passes, only the transforms' rounding may differ. Returns 0.
  int Setup(const double* imagePlane, int width, int height, uint32_t options, int threads = 1);
  // Kernel spectra from a kernelWidth x kernelHeight kernel no larger than the working size
  // (throws marlith::Error otherwise): centred, shifted to the origin, transformed. With an image
  // set (by Setup or SetImage; its plane must still hold it), the numerator is formed from it
  // again. Returns 0.
  int SetKernel(std::span<const double> kernel, int kernelWidth, int kernelHeight);
  // Lends the next solve a W x H plane to use as one of its working planes instead of one of its
  // own; its values are lost. It may be the image plane itself, which a solve reads only in its
  // first round, before it writes the lent plane.
  void LendPlane(double* plane) { lentPlane_ = plane; }

  int SolveWithNoise(double noise) override;
  void SetImage(const double* plane) override;
  void SetLocalPrior(std::span<const double> mask, double weight) override;
  int SetIterationSettings(double weight, uint32_t windowWidth, uint32_t windowHeight,
                           double threshold, uint32_t count) override;
  int SetPriorShape(double a, double l, double k) override;
  int PrepareWeights(uint32_t setting) override;
  void ResetDefaults() override;

  // The restored W x H plane of the last solve: one of the solve's own planes or the lent plane,
  // valid until the next solve, or the image plane itself when the noise strength left no round
  // to do; empty before the first solve.
  std::span<const double> output() const { return {result_, result_ ? planeSize_ : 0}; }
  int width() const { return width_; }
  int height() const { return height_; }
  uint32_t options() const { return options_; }

  // Read access for tests and the refinement pass.
  std::span<const double> kernelPower() const {
    return {kernelPower_.get(), kernelPower_ ? spectrumSize_ : 0};
  }
  std::vector<double> gradientPower() const;  // |Dx|^2 + |Dy|^2, formed from its factors
  std::span<const Complex> conjKernel() const { return {conjKernel_.get(), spectrumSize_}; }
  std::span<const Complex> numerator() const { return {numerator_.get(), spectrumSize_}; }
  std::span<const double> smoothMask() const { return smoothMask_; }  // empty: all zero

 private:
  void PrecomputeGradientSpectra();
  void ComputeReferenceGradients();

  const double* imagePlane_ = nullptr;
  int threads_ = 1;
  int width_ = 0;
  int height_ = 0;
  uint32_t options_ = 0;
  size_t planeSize_ = 0;     // W x H
  size_t spectrumSize_ = 0;  // (W / 2 + 1) x H
  const double* result_ = nullptr;
  std::unique_ptr<SpectralTransform> forwardTransform_;
  std::unique_ptr<SpectralTransform> inverseTransform_;

  // conj(Dx) and conj(Dy) as byColumn[u] x byRow[v]: the difference filters have their taps
  // in one row or one column, so their spectra factor, and the division reads the factors'
  // squared magnitudes (short vectors) instead of a plane of |D|^2.
  struct FactoredSpectrum {
    std::vector<Complex> byColumn, byRow;
    std::vector<double> powerByColumn, powerByRow;  // the squared magnitudes of the factors
  };
  FactoredSpectrum conjDx_, conjDy_;
  FftwBuffer<Complex> numerator_, conjKernel_;
  bool weightsPrepared_ = false;
  // Working planes of the solve, reused by every solve (each channel, each noise level), so their
  // pages are touched once: two planes that hold the estimates in turn, and the spectrum, whose
  // array first holds the adjoint differences that it is the transform of.
  FftwBuffer<double> planeA_, planeB_;
  double* lentPlane_ = nullptr;  // used by the next solve instead of planeB_
  FftwBuffer<Complex> spectrum_;
  FftwBuffer<double> kernelPower_;
  std::vector<double> refGradX_, refGradY_, smoothMask_;
  std::vector<double> kernelCopy_;
  int kernelWidth_ = 0;
  int kernelHeight_ = 0;
};

// Element-wise spectrum routines over n values (n as the spans give it).
// destination = conj(source); source and destination may be the same array.
void ConjugateSpectrum(std::span<const Complex> source, std::span<Complex> destination);
// destination[i] = re^2 + im^2 of source[i].
void SquaredMagnitudes(std::span<const Complex> source, std::span<double> destination);
// destination[i] = a[i] b[i] (complex product).
void MultiplySpectra(std::span<const Complex> a, std::span<const Complex> b,
                     std::span<Complex> destination);

// Moves the value at (row r, column c) to ((r + H/2) mod H, (c + W/2) mod W). source and
// destination may be the same plane.
void CircularShiftHalf(std::span<const double> source, std::span<double> destination, int width,
                       int height);

}  // namespace marlith
