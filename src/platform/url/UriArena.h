// UriArena: a memory manager for one uriparser parse. uriparser allocates a node per path
// segment; for a URL of ordinary length those come from a buffer inside the arena instead of
// the heap, and requests it cannot hold go to malloc. Freeing arena memory does nothing: the
// arena's buffer goes with the arena.
//
// Ownership: the arena must outlive everything parsed with its manager() (declare it before
// the UriUriA it serves). Not copyable or movable: manager() points at it.
// THREADING NOTES: one parse on one thread at a time.
// Failure: an allocation the heap cannot serve returns null, as malloc would; uriparser then
// fails the parse with URI_ERROR_MALLOC.
#pragma once

#include <uriparser/Uri.h>

#include <cstddef>

namespace daskel::platform {

class UriArena {
 public:
  UriArena();
  UriArena(const UriArena&) = delete;
  UriArena& operator=(const UriArena&) = delete;

  UriMemoryManager* manager() { return &manager_; }

 private:
  // Room for the segments of a path about fifty components deep.
  static constexpr std::size_t kCapacity = 2048;
  struct alignas(alignof(std::max_align_t)) Header {
    std::size_t size;  // what was asked for, for reallocate
  };
  static constexpr std::size_t roundedUp(std::size_t size) {
    return (size + alignof(Header) - 1) / alignof(Header) * alignof(Header);
  }

  // The next block of the buffer, or null when it does not fit.
  void* take(std::size_t size);
  bool owns(const void* pointer) const;

  static void* allocate(UriMemoryManager* manager, std::size_t size);
  static void* allocateZeroed(UriMemoryManager* manager, std::size_t count, std::size_t size);
  static void* reallocate(UriMemoryManager* manager, void* pointer, std::size_t size);
  static void* reallocateArray(UriMemoryManager* manager,
                               void* pointer,
                               std::size_t count,
                               std::size_t size);
  static void release(UriMemoryManager* manager, void* pointer);

  alignas(alignof(std::max_align_t)) unsigned char buffer_[kCapacity];
  std::size_t used_ = 0;
  UriMemoryManager manager_;
};

}  // namespace daskel::platform
