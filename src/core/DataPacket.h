#pragma once

#include <memory>

namespace KW {

struct DataPacketChunk;

// Free a chunk or its bytes unless they live inside the packet's own
// allocation (the first chunk of a packet made by DataPacket::create()).
struct DataPacketChunkRelease {
    constexpr DataPacketChunkRelease(bool owned = true) noexcept : owned(owned) {}
    void operator()(DataPacketChunk* chunk) const;
    bool owned;
};
struct DataPacketBytesRelease {
    constexpr DataPacketBytesRelease(bool owned = true) noexcept : owned(owned) {}
    void operator()(unsigned char* bytes) const;
    bool owned;
};

// One chunk of a DataPacket: `capacity` bytes with `length` data bytes from
// `offset`.
using DataPacketChunkPtr = std::unique_ptr<DataPacketChunk, DataPacketChunkRelease>;
struct DataPacketChunk {
    std::unique_ptr<unsigned char[], DataPacketBytesRelease> buffer;
    unsigned long capacity;
    unsigned long offset;
    unsigned long length;
    DataPacketChunkPtr next;
};

// Payload buffer kept as a singly linked list of chunks. Every chunk the
// packet allocates has 256 bytes of room before and after its data, so that
// headers can be prepended and data appended without moving existing bytes.
// Not synchronised: fill it on one thread, then hand it over.
class DataPacket {
  public:
    static constexpr unsigned long HEADROOM = 256;
    static constexpr unsigned long TAILROOM = 256;

    DataPacket();
    explicit DataPacket(unsigned long n);
    DataPacket(void const* data, unsigned long n);
    ~DataPacket();

    DataPacket(DataPacket const&) = delete;
    DataPacket& operator=(DataPacket const&) = delete;

    static std::shared_ptr<DataPacket> create();
    static std::shared_ptr<DataPacket> create(unsigned long n);
    static std::shared_ptr<DataPacket> create(void const* data, unsigned long n);
    // A packet over n bytes at data that belong to `owner`, not copied: the
    // packet keeps `owner` until it goes. Its one chunk has no room before or
    // after the data, so prepend and append add chunks of their own. No bytes
    // (n == 0) make an ordinary empty packet.
    static std::shared_ptr<DataPacket> wrap(void* data, unsigned long n,
                                            std::shared_ptr<void const> owner);

    unsigned long size();
    void append(void const* data, unsigned long n);
    void prepend(void const* data, unsigned long n);
    // Takes other's chunks when this packet's tail has no room for them;
    // otherwise copies other's bytes and leaves other untouched.
    void stealAndAppendData(DataPacket* other);
    // As stealAndAppendData, at the front. In the copying case the head
    // chunk's length is not extended by the copied bytes (long-standing
    // behaviour that callers rely on staying as it is).
    void stealAndPrependData(DataPacket* other);
    void skip(unsigned long n);
    void consolidate();
    void* data();

  private:
    friend class DataPacketInspector;  // white-box checks of the chunk layout

    using Chunk = DataPacketChunk;
    using ChunkRelease = DataPacketChunkRelease;
    using BytesRelease = DataPacketBytesRelease;
    using ChunkPtr = DataPacketChunkPtr;

    // create() builds the packet, its first chunk record and that chunk's n +
    // 512 bytes in one allocation together with the shared pointer's count.
    struct InPlace {
        unsigned char* const* bytes;
    };
    template <typename T>
    class TrailingAllocator;
    DataPacket(InPlace storage, void const* data, unsigned long n);
    struct Borrowed {};

  public:
    // For wrap() only (make_shared needs it public); the tag is private.
    DataPacket(Borrowed, void* data, unsigned long n, std::shared_ptr<void const> owner);

  private:
    static std::shared_ptr<DataPacket> createInPlace(void const* data, unsigned long n);

    // A chunk for n data bytes: capacity n + 512, data at offset 256.
    static ChunkPtr makeChunk(unsigned long n);
    // The list with every chunk that lives inside its packet's allocation
    // replaced by an identical heap copy, so that the list can outlive it.
    static ChunkPtr detach(ChunkPtr list, Chunk** tail);

    unsigned long totalSize;
    ChunkPtr head;
    Chunk* tail;
    Chunk first;                        // the head record of a packet made by create() or wrap()
    std::shared_ptr<void const> owner;  // of a wrapped packet's bytes; goes after the chunks
};

}  // namespace KW
