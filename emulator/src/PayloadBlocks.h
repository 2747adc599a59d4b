#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace SolEmu {

// Storage for the library's copies of sent messages, each with its payload
// behind it in one allocation. A guaranteed message is spooled, and a spool
// grows by megabytes, which the allocator would grow a thread's heap by a page
// at a time (a syscall and a page fault per page): its copy goes to the
// sending thread's own pre-faulted block instead. A block is freed when the
// last object in it goes.
class PayloadBlocks {
  public:
    // A T with `extra` bytes behind it (*trailing points to them), in the
    // calling thread's open block when `spooled`, else on the heap.
    template <typename T>
    static std::shared_ptr<T> make(size_t extra, char** trailing, bool spooled) {
        // The control block and the object, with room for its alignment.
        std::shared_ptr<Block> block = spooled ? withRoom(sizeof(T) + 128 + extra) : nullptr;
        return std::allocate_shared<T>(Allocator<T>(std::move(block), extra, trailing));
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

    // Allocates a shared object's memory with `extra` bytes behind it, from
    // a block, which every copy of the allocator keeps alive (the memory goes
    // back with the block), or with no block from the heap.
    template <typename T>
    class Allocator {
      public:
        using value_type = T;
        Allocator(std::shared_ptr<Block> block, size_t extra, char** trailing)
            : block(std::move(block)), extra(extra), trailing(trailing) {}
        template <typename U>
        Allocator(Allocator<U> const& other)
            : block(other.block), extra(other.extra), trailing(other.trailing) {}
        T* allocate(size_t n) {
            size_t const head =
                (n * sizeof(T) + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
            char* at = block ? block->take(head + extra)
                             : static_cast<char*>(::operator new(head + extra));
            if (at == nullptr) {
                throw std::bad_alloc();
            }
            *trailing = at + head;
            return reinterpret_cast<T*>(at);
        }
        void deallocate(T* at, size_t) noexcept {
            if (!block) {
                ::operator delete(at);
            }
        }
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
        size_t extra;
        char** trailing;
    };

    // The calling thread's open block, with at least `size` bytes free.
    static std::shared_ptr<Block> withRoom(size_t size);
};

}  // namespace SolEmu
