#include "PayloadBlocks.h"

#include <sys/mman.h>

#include <algorithm>

namespace SolEmu {

namespace {

// A thread's first block is small, each next one twice the last, up to the largest.
constexpr size_t FIRST_BLOCK_BYTES = size_t{64} << 10;
constexpr size_t LARGEST_BLOCK_BYTES = size_t{1} << 20;
constexpr size_t ALIGN = alignof(std::max_align_t);

}  // namespace

PayloadBlocks::Block::~Block() {
    munmap(base, bytes);
}

char* PayloadBlocks::Block::take(size_t size) {
    size_t const rounded = (size + ALIGN - 1) & ~(ALIGN - 1);
    if (used + rounded > bytes) {
        return nullptr;
    }
    char* at = base + used;
    used += rounded;
    return at;
}

bool PayloadBlocks::Block::hasRoom(size_t size) const {
    return used + ((size + ALIGN - 1) & ~(ALIGN - 1)) <= bytes;
}

std::shared_ptr<PayloadBlocks::Block> PayloadBlocks::withRoom(size_t size) {
#if defined(__SANITIZE_ADDRESS__)
    // On the heap, AddressSanitizer sees every message's lifetime.
    (void)size;
    return nullptr;
#else
    // A copy as large as a first block goes to the heap.
    if (size > FIRST_BLOCK_BYTES / 2) {
        return nullptr;
    }
    // One open block per sending thread: no lock on the send path.
    thread_local std::shared_ptr<Block> open;
    thread_local size_t nextBytes = FIRST_BLOCK_BYTES;
    if (open && open->hasRoom(size)) {
        return open;
    }
    open.reset();
    size_t const bytes = nextBytes;
    void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    nextBytes = std::min(bytes * 2, LARGEST_BLOCK_BYTES);
    open = std::make_shared<Block>(static_cast<char*>(base), bytes);
    return open;
#endif
}

}  // namespace SolEmu
