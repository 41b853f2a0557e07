// The portable state of a result object: save it to bytes, load it back.
//
// Every result class (MatrixListwise, MatrixPairwise, SMatrixListwise,
// NSMatrixListwise, SMatrixPairwise, NSMatrixPairwise, DiscriminantMatrix,
// DiscIndividualMatrix) has the same two members:
//
//   std::vector<std::byte> SaveState() const;
//   static T LoadState(std::span<const std::byte> state);
//
// SaveState writes the object's whole record: shape, flags, totals and every
// store, each double as its IEEE-754 binary64 bits, in little-endian byte
// order on every host, with a CRC-32C over all of it (docs/state-format.md
// gives the layout). LoadState gives back an object with the very same bits,
// so merging a loaded object gives the bits that merging the original gives.
// Members rather than free functions: the record is private to its class, and
// LoadState of a class states which class the bytes must hold.
//
//   std::vector<std::byte> bytes = matrix.SaveState();
//   vorel::MatrixListwise back = vorel::MatrixListwise::LoadState(bytes);
//
// LoadState trusts nothing in the bytes. A state that is truncated, carries
// another magic, a later format version or another class, fails its checksum,
// claims a shape that the bytes cannot hold or the library cannot index, or
// holds an impossible value (a row count out of range, flags this version
// does not know) raises StateError, whose message says what is wrong and at
// which byte. Nothing beyond what the input's length justifies is allocated
// before the bytes are checked. Exhausted memory still raises std::bad_alloc.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace vorel {

// The one exception for bytes that are not a valid state of the class asked for.
class StateError : public std::runtime_error {
 public:
  // what(): "vorel state: <problem> at byte <offset>".
  StateError(const std::string& problem, std::uint64_t offset);
  // The byte of the state where the problem was found.
  std::uint64_t Offset() const noexcept { return _offset; }

 private:
  std::uint64_t _offset;
};

}  // namespace vorel
