// SPDX-License-Identifier: Apache-2.0
//
// Memory for handlers that asio must always have room for, because the work of an object stops without them:
//
//     asio::post(loop, asio::bind_allocator(HandlerAllocator(memory), handler));
//
// Callable from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace telvora {

// Room for the operations that asio makes of `kCount` handlers at a time, with `kBytes` each.
template <size_t kCount, size_t kBytes = 256>
class HandlerMemory {
  public:
    static constexpr size_t kBlockBytes = kBytes;

    // Throws std::bad_alloc if all blocks are in use.
    void* take() {
        for (Block& block : blocks_) {
            if (!block.used.exchange(true, std::memory_order_acquire)) return block.bytes;
        }
        throw std::bad_alloc();
    }
    void giveBack(const void* bytes) noexcept {
        for (Block& block : blocks_) {
            if (block.bytes == bytes) block.used.store(false, std::memory_order_release);
        }
    }

  private:
    struct Block {
        alignas(std::max_align_t) std::byte bytes[kBlockBytes];
        std::atomic<bool> used{false};
    };
    std::array<Block, kCount> blocks_;
};

// Keeps the memory alive.
template <typename Memory, typename T = void>
class HandlerAllocator {
  public:
    using value_type = T;
    template <typename U>
    struct rebind {
        using other = HandlerAllocator<Memory, U>;
    };

    explicit HandlerAllocator(std::shared_ptr<Memory> memory) noexcept : memory_(std::move(memory)) {}
    template <typename U>
    HandlerAllocator(const HandlerAllocator<Memory, U>& other) noexcept : memory_(other.memory_) {}

    T* allocate(size_t) {
        static_assert(sizeof(T) <= Memory::kBlockBytes);
        return static_cast<T*>(memory_->take());
    }
    void deallocate(T* place, size_t) noexcept { memory_->giveBack(place); }
    template <typename U>
    bool operator==(const HandlerAllocator<Memory, U>& other) const noexcept {
        return memory_ == other.memory_;
    }

  private:
    template <typename, typename>
    friend class HandlerAllocator;
    std::shared_ptr<Memory> memory_;
};

}  // namespace telvora
