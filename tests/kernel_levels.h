// Suites run once at every kernel level: each level is forced in turn, and a
// level the CPU (or the build) lacks is skipped, saying so.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "kernels/crossproducts.h"

namespace vorel::testing {

class AtEveryKernelLevel : public ::testing::TestWithParam<internal::KernelLevel> {
 protected:
  void SetUp() override {
    if (!internal::SetKernelLevel(GetParam()))
      GTEST_SKIP() << "this CPU (or build) has no " << internal::KernelLevelName(GetParam())
                   << " kernels";
  }
  void TearDown() override { internal::SetKernelLevel(internal::BestKernelLevel()); }
};

inline std::string LevelName(const ::testing::TestParamInfo<internal::KernelLevel>& level) {
  return internal::KernelLevelName(level.param);
}

}  // namespace vorel::testing

#define VOREL_AT_EVERY_KERNEL_LEVEL(Suite)                                                        \
  INSTANTIATE_TEST_SUITE_P(Levels, Suite, ::testing::ValuesIn(::vorel::internal::KernelLevels()), \
                           ::vorel::testing::LevelName)
