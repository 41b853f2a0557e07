// The kernels of one level: each level's source includes this header and
// makes its table from its own Isa type.
#pragma once

#include "kernels/columnpass.h"
#include "kernels/dispatch.h"
#include "kernels/maskedpairs.h"
#include "kernels/tiles.h"

namespace vorel::internal::engine {
namespace {

template <class Isa>
constexpr KernelTable kTable{&RunCrossProducts<Isa>, &RunColumnPass<Isa>, &RunMaskedPairs<Isa>};

}  // namespace
}  // namespace vorel::internal::engine
