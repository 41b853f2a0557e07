// The pieces of compressed input that can be decompressed apart from each
// other, found without decompressing them, and a small pool of threads that
// decompresses them and hands out their contents in input order.
//
// A zstd file may hold several frames (pzstd, `cat a.zst b.zst`, seekable
// writers); each frame's extent follows from its header and the 3-byte
// headers of its blocks. A gzip member says its compressed length only in the
// BGZF extra field (subfield 'B','C' with BSIZE); other gzip members can only
// be found by inflating them, so such input is decompressed serially. Member
// boundaries are never guessed by looking for the bytes that start a member:
// compressed data holds them by chance.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace vorelstat {

// What the first bytes of some compressed input say about the piece that
// starts there.
struct PieceExtent {
  enum Kind {
    kPiece,      // a piece of `size` bytes whose content is at most `contentBound` bytes
    kSkippable,  // `size` bytes that hold no content
    kNeedMore,   // the bytes end before the piece does; size (when known) and
                 // contentBound are what is known of the piece so far
    kUnknown,    // no piece whose extent can be told: decompress from here serially
  };
  Kind kind = kUnknown;
  std::uint64_t size = 0;
  std::uint64_t contentBound = 0;
  // The content is exactly contentBound bytes (as a frame or member declares).
  bool exact = false;
};

// The zstd frame or skippable frame at the start of `bytes`. The content
// bound is the declared content size, or else the largest content each block
// can hold summed over the blocks.
PieceExtent FindZstdFrame(std::string_view bytes);
// The BGZF gzip member at the start of `bytes`; kUnknown for any other gzip
// member. The content size is the member's ISIZE.
PieceExtent FindBgzfMember(std::string_view bytes);

// Runs jobs on a fixed number of threads and hands out their results in the
// order the jobs were submitted, an exception where the job threw one. The
// destructor drops the jobs not started and joins the threads once the
// running ones end, so that no thread outlives the pool.
class OrderedPool {
 public:
  using Job = std::function<std::string()>;

  explicit OrderedPool(unsigned threads);
  ~OrderedPool();
  OrderedPool(const OrderedPool&) = delete;
  OrderedPool& operator=(const OrderedPool&) = delete;

  void Submit(Job job);
  // Jobs submitted and not yet taken.
  std::size_t Pending() const;
  // The result of the oldest job not yet taken, waiting for it; rethrows what
  // the job threw. Needs Pending() > 0.
  std::string TakeNext();

 private:
  struct Slot {
    Job job;
    std::string result;
    std::exception_ptr error;
    bool done = false;
  };

  void Work();

  mutable std::mutex _mutex;
  std::condition_variable _toDo;             // a job was submitted, or the pool is stopping
  std::condition_variable _done;             // a job ended
  std::deque<std::shared_ptr<Slot>> _slots;  // in submission order, not yet taken
  std::deque<std::shared_ptr<Slot>> _todo;   // not yet started
  bool _stop = false;
  std::vector<std::thread> _threads;  // last: started once the rest is made
};

}  // namespace vorelstat
