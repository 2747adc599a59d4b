#include "core/DataPacket.h"

#include <cstring>

namespace KW {

namespace {

// memcpy must not see a null pointer, even for zero bytes.
void copyBytes(void* to, void const* from, unsigned long n) {
    if (n != 0) {
        std::memcpy(to, from, n);
    }
}

}  // namespace

std::unique_ptr<DataPacket::Chunk> DataPacket::makeChunk(unsigned long n) {
    auto chunk = std::make_unique<Chunk>();
    unsigned long capacity = n + HEADROOM + TAILROOM;
    // Left uninitialised: every caller fills the data bytes it counts.
    chunk->buffer.reset(new unsigned char[capacity]);
    chunk->capacity = capacity;
    chunk->offset = HEADROOM;
    chunk->length = n;
    return chunk;
}

DataPacket::DataPacket() : totalSize(0), head(makeChunk(0)), tail(head.get()) {}

DataPacket::DataPacket(unsigned long n) : totalSize(n), head(makeChunk(n)), tail(head.get()) {}

DataPacket::DataPacket(void const* data, unsigned long n)
    : totalSize(n), head(makeChunk(n)), tail(head.get()) {
    copyBytes(head->buffer.get() + head->offset, data, n);
}

DataPacket::~DataPacket() {
    // Unlink one chunk at a time so that a long list is not freed recursively.
    while (head) {
        head = std::move(head->next);
    }
}

std::shared_ptr<DataPacket> DataPacket::create() {
    return std::make_shared<DataPacket>();
}

std::shared_ptr<DataPacket> DataPacket::create(unsigned long n) {
    return std::make_shared<DataPacket>(n);
}

std::shared_ptr<DataPacket> DataPacket::create(void const* data, unsigned long n) {
    return std::make_shared<DataPacket>(data, n);
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
        tail->next = std::move(other->head);
        tail = other->tail;
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
        other->tail->next = std::move(head);
        head = std::move(other->head);
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
        head = std::move(head->next);
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
        head = std::move(head->next);
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
