#include "core/DataPacket.h"

#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

namespace KW {

namespace {

// Unlinks the first chunk of a list and frees it (unless it lives in its
// packet's block). The rest is moved out first: assigning head->next to head
// directly would read the deleter of `next` from the chunk it has just freed.
void dropFirst(DataPacketChunkPtr& head) {
    DataPacketChunkPtr rest = std::move(head->next);
    head = std::move(rest);
}

// memcpy must not see a null pointer, even for zero bytes.
void copyBytes(void* to, void const* from, unsigned long n) {
    if (n != 0) {
        std::memcpy(to, from, n);
    }
}

}  // namespace

void DataPacketChunkRelease::operator()(DataPacketChunk* chunk) const {
    if (owned) {
        delete chunk;
    }
}

void DataPacketBytesRelease::operator()(unsigned char* bytes) const {
    if (owned) {
        delete[] bytes;
    }
}

// Allocates what allocate_shared asks for (the count and the packet) with
// room for `extra` bytes behind it, and reports where that room starts.
template <typename T>
class DataPacket::TrailingAllocator {
  public:
    using value_type = T;

    TrailingAllocator(std::size_t extra, unsigned char** room) : extra(extra), room(room) {}
    template <typename U>
    explicit TrailingAllocator(TrailingAllocator<U> const& other)
        : extra(other.extra), room(other.room) {}

    T* allocate(std::size_t n) {
        constexpr std::size_t align = alignof(std::max_align_t);
        std::size_t const front = (n * sizeof(T) + align - 1) / align * align;
        auto* block = static_cast<unsigned char*>(::operator new(front + extra));
        *room = block + front;
        return reinterpret_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t) { ::operator delete(block); }

    // Lets allocate_shared reach the packet's private in-place constructor.
    template <typename U, typename... Args>
    void construct(U* at, Args&&... args) {
        ::new (static_cast<void*>(at)) U(std::forward<Args>(args)...);
    }

    template <typename U>
    bool operator==(TrailingAllocator<U> const& other) const {
        return extra == other.extra && room == other.room;
    }
    template <typename U>
    bool operator!=(TrailingAllocator<U> const& other) const {
        return !(*this == other);
    }

    std::size_t extra;
    unsigned char** room;
};

DataPacket::ChunkPtr DataPacket::makeChunk(unsigned long n) {
    ChunkPtr chunk(new Chunk());
    unsigned long capacity = n + HEADROOM + TAILROOM;
    // Left uninitialised: every caller fills the data bytes it counts.
    chunk->buffer.reset(new unsigned char[capacity]);
    chunk->capacity = capacity;
    chunk->offset = HEADROOM;
    chunk->length = n;
    return chunk;
}

DataPacket::ChunkPtr DataPacket::detach(ChunkPtr list, Chunk** tail) {
    ChunkPtr* link = &list;
    Chunk* last = nullptr;
    while (*link) {
        Chunk* chunk = link->get();
        if (!link->get_deleter().owned || !chunk->buffer.get_deleter().owned) {
            // Same capacity, offset, length and every byte of the buffer (the
            // headroom may hold counted bytes, see stealAndPrependData).
            ChunkPtr copy(new Chunk());
            copy->buffer.reset(new unsigned char[chunk->capacity]);
            copyBytes(copy->buffer.get(), chunk->buffer.get(), chunk->capacity);
            copy->capacity = chunk->capacity;
            copy->offset = chunk->offset;
            copy->length = chunk->length;
            copy->next = std::move(chunk->next);
            *link = std::move(copy);
        }
        last = link->get();
        link = &last->next;
    }
    *tail = last;
    return list;
}

DataPacket::DataPacket() : totalSize(0), head(makeChunk(0)), tail(head.get()) {}

DataPacket::DataPacket(unsigned long n) : totalSize(n), head(makeChunk(n)), tail(head.get()) {}

DataPacket::DataPacket(void const* data, unsigned long n)
    : totalSize(n), head(makeChunk(n)), tail(head.get()) {
    copyBytes(head->buffer.get() + head->offset, data, n);
}

// The same chunk as makeChunk(n) gives, over bytes allocated with the packet.
DataPacket::DataPacket(InPlace storage, void const* data, unsigned long n)
    : totalSize(n), head(&first, ChunkRelease{false}), tail(&first) {
    first.buffer =
        std::unique_ptr<unsigned char[], BytesRelease>(*storage.bytes, BytesRelease{false});
    first.capacity = n + HEADROOM + TAILROOM;
    first.offset = HEADROOM;
    first.length = n;
    if (data != nullptr) {
        copyBytes(first.buffer.get() + first.offset, data, n);
    }
}

DataPacket::DataPacket(Borrowed, void* data, unsigned long n, std::shared_ptr<void const> owner)
    : totalSize(n), head(&first, ChunkRelease{false}), tail(&first), owner(std::move(owner)) {
    first.buffer = std::unique_ptr<unsigned char[], BytesRelease>(static_cast<unsigned char*>(data),
                                                                  BytesRelease{false});
    first.capacity = n;
    first.offset = 0;
    first.length = n;
}

DataPacket::~DataPacket() {
    // Unlink one chunk at a time so that a long list is not freed recursively.
    while (head) {
        dropFirst(head);
    }
}

// One allocation instead of three (count and packet, chunk record, bytes);
// the chunk layout is the one the plain constructors make.
std::shared_ptr<DataPacket> DataPacket::createInPlace(void const* data, unsigned long n) {
    unsigned char* bytes = nullptr;
    TrailingAllocator<DataPacket> allocator(n + HEADROOM + TAILROOM, &bytes);
    return std::allocate_shared<DataPacket>(allocator, InPlace{&bytes}, data, n);
}

std::shared_ptr<DataPacket> DataPacket::create() {
    return createInPlace(nullptr, 0);
}

std::shared_ptr<DataPacket> DataPacket::create(unsigned long n) {
    return createInPlace(nullptr, n);
}

std::shared_ptr<DataPacket> DataPacket::create(void const* data, unsigned long n) {
    return createInPlace(data, n);
}

std::shared_ptr<DataPacket> DataPacket::wrap(void* data, unsigned long n,
                                             std::shared_ptr<void const> owner) {
    if (n == 0) {
        return create();  // nothing to borrow, and a packet always has bytes to write into
    }
    return std::make_shared<DataPacket>(Borrowed{}, data, n, std::move(owner));
}

unsigned long DataPacket::size() {
    return head ? totalSize : 0;
}

void DataPacket::append(void const* data, unsigned long n) {
    if (!head) {
        return;
    }
    if (tail->offset + tail->length + n <= tail->capacity) {
        copyBytes(tail->buffer.get() + tail->offset + tail->length, data, n);
        tail->length += n;
    } else {
        auto chunk = makeChunk(n);
        copyBytes(chunk->buffer.get() + chunk->offset, data, n);
        Chunk* newTail = chunk.get();
        tail->next = std::move(chunk);
        tail = newTail;
    }
    totalSize += n;
}

void DataPacket::prepend(void const* data, unsigned long n) {
    if (!head) {
        return;
    }
    if (head->offset >= n) {
        head->offset -= n;
        copyBytes(head->buffer.get() + head->offset, data, n);
        head->length += n;
    } else {
        auto chunk = makeChunk(n);
        copyBytes(chunk->buffer.get() + chunk->offset, data, n);
        chunk->next = std::move(head);
        head = std::move(chunk);
    }
    totalSize += n;
}

void DataPacket::stealAndAppendData(DataPacket* other) {
    if (!head || other == nullptr || !other->head) {
        return;
    }
    unsigned long n = other->totalSize;
    if (tail->offset + tail->length + n > tail->capacity) {
        Chunk* otherTail = nullptr;
        tail->next = detach(std::move(other->head), &otherTail);
        tail = otherTail;
        totalSize += n;
        return;
    }
    unsigned char* to = tail->buffer.get() + tail->offset + tail->length;
    for (Chunk* chunk = other->head.get(); chunk != nullptr; chunk = chunk->next.get()) {
        copyBytes(to, chunk->buffer.get() + chunk->offset, chunk->length);
        to += chunk->length;
    }
    tail->length += n;
    totalSize += n;
}

void DataPacket::stealAndPrependData(DataPacket* other) {
    if (!head || other == nullptr || !other->head) {
        return;
    }
    unsigned long n = other->totalSize;
    if (head->offset < n) {
        Chunk* otherTail = nullptr;
        ChunkPtr list = detach(std::move(other->head), &otherTail);
        otherTail->next = std::move(head);
        head = std::move(list);
        totalSize += n;
        return;
    }
    unsigned char* to = head->buffer.get() + head->offset - n;
    for (Chunk* chunk = other->head.get(); chunk != nullptr; chunk = chunk->next.get()) {
        copyBytes(to, chunk->buffer.get() + chunk->offset, chunk->length);
        to += chunk->length;
    }
    head->offset -= n;
    totalSize += n;
}

void DataPacket::skip(unsigned long n) {
    if (!head || n == 0) {
        return;
    }
    unsigned long remaining = n;
    while (head->length <= remaining) {
        if (head.get() == tail) {
            // Skipping past the end leaves one empty chunk; the excess is ignored.
            totalSize -= head->length;
            head->length = 0;
            return;
        }
        totalSize -= head->length;
        remaining -= head->length;
        dropFirst(head);
        if (remaining == 0) {
            return;
        }
    }
    head->offset += remaining;
    head->length -= remaining;
    totalSize -= remaining;
}

void DataPacket::consolidate() {
    if (!head || head.get() == tail) {
        return;
    }
    auto merged = makeChunk(totalSize);
    unsigned char* to = merged->buffer.get() + merged->offset;
    for (Chunk* chunk = head.get(); chunk != nullptr; chunk = chunk->next.get()) {
        copyBytes(to, chunk->buffer.get() + chunk->offset, chunk->length);
        to += chunk->length;
    }
    while (head) {
        dropFirst(head);
    }
    head = std::move(merged);
    tail = head.get();
}

void* DataPacket::data() {
    if (!head) {
        return nullptr;
    }
    if (head.get() != tail) {
        consolidate();
    }
    return head->buffer.get() + head->offset;
}

}  // namespace KW
