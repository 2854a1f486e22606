// A library opened on first use: a missing library or function is one error naming it.
#include "plane/system_library.h"

#include <gtest/gtest.h>

#include <string>

#include "marlith/error.hpp"

TEST(SystemLibrary, NamesWhatIsMissing) {
  try {
    marlith::SystemLibrary missing("libmarlith-none.so.0");
    FAIL() << "no error";
  } catch (const marlith::Error& e) {
    EXPECT_NE(std::string(e.what()).find("cannot load libmarlith-none.so.0"), std::string::npos);
  }
  const marlith::SystemLibrary maths("libm.so.6");
  EXPECT_EQ(maths.Get<double(double)>("cos")(0.0), 1.0);
  try {
    maths.Get<void()>("marlith_no_such_function");
    FAIL() << "no error";
  } catch (const marlith::Error& e) {
    EXPECT_STREQ(e.what(), "libm.so.6 has no function marlith_no_such_function");
  }
}
