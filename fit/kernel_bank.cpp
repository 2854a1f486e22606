#include "fit/kernel_bank.h"

#include <array>
#include <cassert>
#include <map>
#include <mutex>
#include <vector>

#include "plane/plane_padding.h"

namespace marlith {
namespace {

struct StoredKernel {
  std::vector<double> values;
  int32_t width = 0;
  int32_t height = 0;
  KernelDescriptor descriptor() const { return {values, width, height}; }
};

struct Bank {
  bool built = false;
  std::map<BankKernel, StoredKernel> named;
  std::map<int32_t, StoredKernel> smoothing;
  std::map<int32_t, KernelDescriptor> smoothingDescriptors;
};

std::mutex& BankMutex() {
  static std::mutex mutex;
  return mutex;
}

Bank& TheBank() {
  static Bank bank;
  return bank;
}

// The 5 x 5 table of ThinPlateStencil, row-major with the centre at (2, 2).
constexpr std::array<double, 25> kThinPlateStencil = [] {
  using S = ThinPlateStencil;
  std::array<double, 25> t{};
  auto at = [&t](int dx, int dy) -> double& { return t[(dy + 2) * 5 + dx + 2]; };
  at(0, 0) = S::kCentre;
  for (int d : {-1, 1}) {
    at(d, 0) = at(0, d) = S::kNeighbour;
    at(2 * d, 0) = at(0, 2 * d) = S::kFar;
    for (int e : {-1, 1}) at(d, e) = S::kDiagonal;
  }
  return t;
}();

std::vector<double> OuterProduct(const std::vector<double>& a) {
  std::vector<double> out(a.size() * a.size());
  for (size_t y = 0; y < a.size(); ++y)
    for (size_t x = 0; x < a.size(); ++x) out[y * a.size() + x] = a[y] * a[x];
  return out;
}

}  // namespace

void buildKernelBank() {
  std::lock_guard<std::mutex> lock(BankMutex());
  Bank& bank = TheBank();
  if (bank.built) return;
  const std::vector<double> difference = {0.0, 1.0, -1.0};
  const std::vector<double> binomial3 = {0.25, 0.5, 0.25};
  // The 3-tap binomial filtered with itself.
  std::vector<double> binomial5(5, 0.0);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) binomial5[i + j] += binomial3[i] * binomial3[j];

  auto& named = bank.named;
  named[BankKernel::kForwardDifferenceX] = {difference, 3, 1};
  named[BankKernel::kForwardDifferenceY] = {difference, 1, 3};
  named[BankKernel::kBinomialRow3] = {binomial3, 3, 1};
  named[BankKernel::kBinomialColumn3] = {binomial3, 1, 3};
  named[BankKernel::kBinomialRow5] = {binomial5, 5, 1};
  named[BankKernel::kBinomialColumn5] = {binomial5, 1, 5};
  named[BankKernel::kLaplacian] = {{0, 1, 0, 1, -4, 1, 0, 1, 0}, 3, 3};
  named[BankKernel::kThinPlate] = {{kThinPlateStencil.begin(), kThinPlateStencil.end()}, 5, 5};
  named[BankKernel::kGaussian7Sigma125] = {MakeGaussianKernel(7, 7, 1.25), 7, 7};
  named[BankKernel::kGaussian7Sigma15] = {MakeGaussianKernel(7, 7, 1.5), 7, 7};
  named[BankKernel::kGaussian7Sigma14] = {MakeGaussianKernel(7, 7, 1.4), 7, 7};
  named[BankKernel::kGaussian7Sigma085] = {MakeGaussianKernel(7, 7, 0.85), 7, 7};
  named[BankKernel::kGaussian11Sigma17] = {MakeGaussianKernel(11, 11, 1.7), 11, 11};
  named[BankKernel::kGaussian11Sigma12] = {MakeGaussianKernel(11, 11, 1.2), 11, 11};
  named[BankKernel::kGaussian11Sigma115] = {MakeGaussianKernel(11, 11, 1.15), 11, 11};
  named[BankKernel::kGaussian15Sigma24] = {MakeGaussianKernel(15, 15, 2.4), 15, 15};
  named[BankKernel::kCross] = {{0, 0.125, 0, 0.125, 0.5, 0.125, 0, 0.125, 0}, 3, 3};

  // The smoothing Gaussians are "post-processed" Gaussians: we take that to be the unit-sum
  // normalisation our Gaussian maker already applies, so that smoothing keeps the mean level.
  auto& smoothing = bank.smoothing;
  smoothing[1] = {OuterProduct(binomial3), 3, 3};
  smoothing[2] = {OuterProduct(binomial5), 5, 5};
  smoothing[3] = {MakeGaussianKernel(9, 9, 1.465), 9, 9};
  smoothing[4] = {MakeGaussianKernel(17, 17, 2.022), 17, 17};
  smoothing[5] = {MakeGaussianKernel(17, 17, 2.5), 17, 17};
  smoothing[6] = {MakeGaussianKernel(17, 17, 3.1), 17, 17};
  smoothing[1024] = {};  // cleared at the end of the build: never holds a kernel
  for (const auto& [id, k] : smoothing) bank.smoothingDescriptors[id] = k.descriptor();
  // Fifteen further kernels, filled from constant tables and flipped upside down, belong to
  // deconvolution operators this program does not have. Nothing looks them up, so they are
  // left out rather than filled with invented values.
  bank.built = true;
}

void releaseKernelBank() {
  std::lock_guard<std::mutex> lock(BankMutex());
  TheBank() = Bank{};
}

bool kernelBankBuilt() {
  std::lock_guard<std::mutex> lock(BankMutex());
  return TheBank().built;
}

KernelDescriptor bankKernel(BankKernel which) {
  std::lock_guard<std::mutex> lock(BankMutex());
  assert(TheBank().built && "build the kernel bank first");
  return TheBank().named.at(which).descriptor();
}

const KernelDescriptor* smoothingKernel(int32_t id) {
  std::lock_guard<std::mutex> lock(BankMutex());
  assert(TheBank().built && "build the kernel bank first");
  const auto& d = TheBank().smoothingDescriptors;
  const auto it = d.find(id);
  return it == d.end() ? nullptr : &it->second;
}

std::span<const double> thinPlateStencil() { return kThinPlateStencil; }

}  // namespace marlith
