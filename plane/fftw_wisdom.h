// Tuned FFTW plans without paying for them on every run: a transform planned a second time (in
// this process, or in an earlier one through the disk cache) is measured once, and its wisdom
// kept in memory for the process and on disk for later runs.
//
// The disk cache is one file per transform (kind, size and threads), FFTW build and machine,
// read when that transform is planned, in $MARLITH_FFTW_WISDOM, or when that is unset in
// $XDG_CACHE_HOME/marlith (~/.cache/marlith without XDG_CACHE_HOME); MARLITH_FFTW_WISDOM=off
// (or empty) keeps wisdom in memory only. A file that cannot be read, does not check out or
// comes from another FFTW or machine is ignored (and replaced on the next save); files are
// written to a temporary name and renamed into place.
#pragma once

#include <fftw3.h>

#include <functional>
#include <set>
#include <string>

namespace marlith {

// Makes the plan for the transform called key (kind, size and threads: "r2c 1000x1000 t2") with
// make(flags); the caller holds FftwPlannerMutex(). The first time a key is planned the plan is
// estimated (FFTW_ESTIMATE: milliseconds); the second time it is measured (FFTW_MEASURE) and the
// wisdom saved; from then on the measured plan comes from wisdom without planning. Returns what
// make returned.
fftw_plan PlanWithWisdom(const std::string& key, const std::function<fftw_plan(unsigned)>& make);

// What the last PlanWithWisdom call did, for benchmarks and tests.
enum class PlanSource { kEstimated, kMeasured, kFromWisdom };
PlanSource LastPlanSource();

// The disk cache's folder as the environment gives it; empty when the disk cache is off.
std::string WisdomDirectory();

// The FFTW build and machine the wisdom belongs to (one line): FFTW's version and build
// settings, the CPU model, a hash of its feature flags and the number of CPUs.
std::string WisdomIdentity();

// The contents of a wisdom file: the transforms planned before, and FFTW's exported wisdom.
struct WisdomFileContents {
  std::set<std::string> seen;
  std::string wisdom;
};

// The file's text for identity; ParseWisdomFile reads it back, and returns false (leaving out
// unspecified) for text that is not such a file, is cut short or altered (a checksum covers the
// wisdom), or belongs to another identity.
std::string FormatWisdomFile(const WisdomFileContents& contents, const std::string& identity);
bool ParseWisdomFile(const std::string& text, const std::string& identity, WisdomFileContents& out);

}  // namespace marlith
