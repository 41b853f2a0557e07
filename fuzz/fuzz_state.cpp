// Fuzz target of the state loader: any bytes, loaded as every result class,
// either raise StateError or give an object whose own state is those very
// bytes. Anything else (a crash, a sanitizer report, another exception, a
// state that does not come back byte for byte) is a finding.
//
// Nearly every mutation breaks the checksum, which the loader checks before
// any field; so each input is tried a second time with its length field and
// checksum made to fit, which takes the mutated fields to their own checks.

#include <vorel/vorel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "common/statecodec.h"

namespace {

template <class T>
void LoadAndSaveAgain(std::span<const std::byte> bytes) {
  try {
    const T loaded = T::LoadState(bytes);
    const std::vector<std::byte> again = loaded.SaveState();
    if (!std::equal(again.begin(), again.end(), bytes.begin(), bytes.end())) __builtin_trap();
  } catch (const vorel::StateError&) {
    // The one answer to bytes that are not a state of T.
  }
}

template <class... T>
void LoadAsEveryClass(std::span<const std::byte> bytes) {
  (LoadAndSaveAgain<T>(bytes), ...);
}

// The bytes with the length field (at 16) and the checksum (the last four
// bytes) that fit them, little-endian.
std::vector<std::byte> Resealed(std::span<const std::byte> bytes) {
  std::vector<std::byte> sealed(bytes.begin(), bytes.end());
  const std::size_t end = sealed.size() - 4;
  const std::uint64_t length = sealed.size();
  for (int i = 0; i < 8; ++i)
    sealed[16 + static_cast<std::size_t>(i)] = static_cast<std::byte>((length >> (8 * i)) & 0xFF);
  const std::uint32_t crc = vorel::internal::Crc32c(std::span(sealed).first(end));
  for (int i = 0; i < 4; ++i)
    sealed[end + static_cast<std::size_t>(i)] = static_cast<std::byte>((crc >> (8 * i)) & 0xFF);
  return sealed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  using namespace vorel;
  LoadAsEveryClass<MatrixListwise, MatrixPairwise, SMatrixListwise, NSMatrixListwise,
                   SMatrixPairwise, NSMatrixPairwise, DiscriminantMatrix, DiscIndividualMatrix>(
      bytes);
  if (size >= internal::kStateHeaderBytes + internal::kStateChecksumBytes) {
    const std::vector<std::byte> sealed = Resealed(bytes);
    LoadAsEveryClass<MatrixListwise, MatrixPairwise, SMatrixListwise, NSMatrixListwise,
                     SMatrixPairwise, NSMatrixPairwise, DiscriminantMatrix, DiscIndividualMatrix>(
        sealed);
  }
  return 0;
}
