#pragma once

#include <memory>

namespace KW {

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

    struct Chunk {
        std::unique_ptr<unsigned char[]> buffer;
        unsigned long capacity;
        unsigned long offset;
        unsigned long length;
        std::unique_ptr<Chunk> next;
    };

    // A chunk for n data bytes: capacity n + 512, data at offset 256.
    static std::unique_ptr<Chunk> makeChunk(unsigned long n);

    unsigned long totalSize;
    std::unique_ptr<Chunk> head;
    Chunk* tail;
};

}  // namespace KW
