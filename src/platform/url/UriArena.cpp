#include "platform/url/UriArena.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace daskel::platform {

UriArena::UriArena()
    : manager_{&allocate, &allocateZeroed, &reallocate, &reallocateArray, &release, this} {}

void* UriArena::take(std::size_t size) {
  const std::size_t needed = sizeof(Header) + roundedUp(size);
  if (size > kCapacity || kCapacity - used_ < needed) {
    return nullptr;
  }
  auto* header = reinterpret_cast<Header*>(buffer_ + used_);
  header->size = size;
  used_ += needed;
  return header + 1;
}

bool UriArena::owns(const void* pointer) const {
  const auto* byte = static_cast<const unsigned char*>(pointer);
  return byte >= buffer_ && byte < buffer_ + kCapacity;
}

void* UriArena::allocate(UriMemoryManager* manager, std::size_t size) {
  void* taken = static_cast<UriArena*>(manager->userData)->take(size);
  return taken != nullptr ? taken : std::malloc(size);
}

void* UriArena::allocateZeroed(UriMemoryManager* manager, std::size_t count, std::size_t size) {
  if (size != 0 && count > SIZE_MAX / size) {
    errno = ENOMEM;
    return nullptr;
  }
  void* memory = allocate(manager, count * size);
  if (memory != nullptr) {
    std::memset(memory, 0, count * size);
  }
  return memory;
}

void* UriArena::reallocate(UriMemoryManager* manager, void* pointer, std::size_t size) {
  auto* arena = static_cast<UriArena*>(manager->userData);
  if (pointer == nullptr) {
    return allocate(manager, size);
  }
  if (!arena->owns(pointer)) {
    return std::realloc(pointer, size);
  }
  const std::size_t old = (static_cast<Header*>(pointer) - 1)->size;
  void* moved = allocate(manager, size);
  if (moved != nullptr) {
    std::memcpy(moved, pointer, std::min(old, size));
  }
  return moved;
}

void* UriArena::reallocateArray(UriMemoryManager* manager,
                                void* pointer,
                                std::size_t count,
                                std::size_t size) {
  if (size != 0 && count > SIZE_MAX / size) {
    errno = ENOMEM;
    return nullptr;
  }
  return reallocate(manager, pointer, count * size);
}

void UriArena::release(UriMemoryManager* manager, void* pointer) {
  if (pointer != nullptr && !static_cast<UriArena*>(manager->userData)->owns(pointer)) {
    std::free(pointer);
  }
}

}  // namespace daskel::platform
