// Where each result of a marlith-deblur run goes, checked before any image is read: every
// output can be written, none is an input or the kernel, no two are the same file.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "deblur/deblur_options.h"

namespace marlith {

// A command line whose parts contradict each other (exit status 2), as opposed to a file that
// cannot be used (marlith::Error, exit status 1).
class UsageProblem : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct PlannedImage {
  std::string input;
  std::string output;
};

// The output of each of settings.inputs, in their order:
// - no --output: beside the input as "<stem>-deblurred<ext>";
// - --output naming a folder (one that exists, or any name ending in '/', then made with the
//   folders above it when missing): the input's file name in that folder;
// - else --output itself, which takes one input only.
// The extension is --format's when given, else the input's. Then every output is checked as
// the header says, and against an explicit --depth its type cannot hold.
// Throws UsageProblem for contradictions (several inputs into one file, --format with a file
// output or naming no type written, an output that is an input or the kernel, two inputs with
// one output, a depth the type cannot hold) and marlith::Error naming the file for an output
// that cannot be written (a missing or read-only folder, a type this build does not write).
std::vector<PlannedImage> PlanOutputs(const DeblurSettings& settings);

}  // namespace marlith
