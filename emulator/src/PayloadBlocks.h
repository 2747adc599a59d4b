#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace SolEmu {

// Storage for guaranteed messages, which the broker spools. A spool grows by
// megabytes, and the allocator grows a thread's heap a page at a time (a
// syscall and a page fault per page); here a sending thread builds its copies
// in its own pre-faulted block instead. A block is freed when the last object
// in it goes.
class PayloadBlocks {
  public:
    // A copy of the bytes, kept alive by the returned pointer.
    static std::shared_ptr<char const> copy(void const* data, uint32_t size);

    // A T built in the calling thread's open block.
    template <typename T, typename... Args>
    static std::shared_ptr<T> make(Args&&... args) {
        // The control block and the object, with room for alignment.
        std::shared_ptr<Block> block = withRoom(sizeof(T) + 64);
        if (!block) {
            return std::make_shared<T>(std::forward<Args>(args)...);
        }
        return std::allocate_shared<T>(Allocator<T>(std::move(block)), std::forward<Args>(args)...);
    }

  private:
    class Block {
      public:
        Block(char* base, size_t bytes) : base(base), bytes(bytes) {}
        ~Block();
        Block(Block const&) = delete;
        Block& operator=(Block const&) = delete;

        bool hasRoom(size_t size) const;
        // Room for `size` bytes, or null when the block is full.
        char* take(size_t size);

      private:
        char* const base;
        size_t const bytes;
        size_t used = 0;
    };

    // Hands out memory of one block, which every copy of it keeps alive;
    // memory goes back with the block.
    template <typename T>
    class Allocator {
      public:
        using value_type = T;
        explicit Allocator(std::shared_ptr<Block> block) : block(std::move(block)) {}
        template <typename U>
        Allocator(Allocator<U> const& other) : block(other.block) {}
        T* allocate(size_t n) {
            char* at = block->take(n * sizeof(T));
            if (at == nullptr) {
                throw std::bad_alloc();
            }
            return reinterpret_cast<T*>(at);
        }
        void deallocate(T*, size_t) noexcept {}
        template <typename U>
        bool operator==(Allocator<U> const& other) const {
            return block == other.block;
        }
        template <typename U>
        bool operator!=(Allocator<U> const& other) const {
            return block != other.block;
        }

      private:
        template <typename U>
        friend class Allocator;
        std::shared_ptr<Block> block;
    };

    // The calling thread's open block, with at least `size` bytes free.
    static std::shared_ptr<Block> withRoom(size_t size);
};

}  // namespace SolEmu
