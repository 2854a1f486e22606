// Shared libraries opened the first time a run calls into them instead of when a program
// starts. UMFPACK (with CHOLMOD, METIS, LAPACK and gfortran behind it) and OpenBLAS took about
// 10 ms of every start, and OpenBLAS starts a thread per core as it loads, while most runs fit
// no exact margins and refine no kernel.
#pragma once

namespace marlith {

// A library opened by its SONAME for the rest of the process (never closed: the functions taken
// from it may be kept anywhere).
class SystemLibrary {
 public:
  // Throws marlith::Error with the loader's words when the library cannot be opened.
  explicit SystemLibrary(const char* soname);

  // The named function; throws marlith::Error when the library (or one it loaded) lacks it.
  template <typename Function>
  Function* Get(const char* name) const {
    return reinterpret_cast<Function*>(Find(name));
  }

 private:
  void* Find(const char* name) const;
  const char* soname_;
  void* handle_;
};

}  // namespace marlith
