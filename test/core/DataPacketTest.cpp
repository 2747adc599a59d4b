#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "core/DataPacket.h"

namespace KW {

// Reads the chunk list that the packet keeps to itself.
class DataPacketInspector {
  public:
    struct ChunkView {
        unsigned long capacity;
        unsigned long offset;
        unsigned long length;
    };

    static std::vector<ChunkView> chunks(DataPacket& packet) {
        std::vector<ChunkView> out;
        for (auto* c = packet.head.get(); c != nullptr; c = c->next.get()) {
            out.push_back({c->capacity, c->offset, c->length});
        }
        return out;
    }

    // The bytes each chunk says it holds, in order.
    static std::vector<std::uint8_t> bytes(DataPacket& packet) {
        std::vector<std::uint8_t> out;
        for (auto* c = packet.head.get(); c != nullptr; c = c->next.get()) {
            out.insert(out.end(), c->buffer.get() + c->offset,
                       c->buffer.get() + c->offset + c->length);
        }
        return out;
    }

    static bool tailIsLast(DataPacket& packet) {
        auto* c = packet.head.get();
        while (c != nullptr && c->next) {
            c = c->next.get();
        }
        return c == packet.tail;
    }
};

}  // namespace KW

namespace {

using KW::DataPacket;
using Inspector = KW::DataPacketInspector;
using Bytes = std::vector<std::uint8_t>;

Bytes pattern(std::size_t n, std::uint8_t seed) {
    Bytes out(n);
    for (std::size_t i = 0; i < n; ++i) {
        out[i] = static_cast<std::uint8_t>(seed + i * 7);
    }
    return out;
}

Bytes contents(DataPacket& packet) {
    auto* p = static_cast<std::uint8_t*>(packet.data());
    return p == nullptr ? Bytes() : Bytes(p, p + packet.size());
}

TEST(DataPacketLayout, AppendFillsTailroomThenAddsOneChunk) {
    DataPacket packet;
    Bytes first = pattern(256, 1);
    packet.append(first.data(), first.size());
    EXPECT_EQ(Inspector::chunks(packet).size(), 1u);

    std::uint8_t extra = 0xAB;
    packet.append(&extra, 1);
    auto chunks = Inspector::chunks(packet);
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[1].capacity, 513u);
    EXPECT_TRUE(Inspector::tailIsLast(packet));

    first.push_back(extra);
    EXPECT_EQ(contents(packet), first);
    EXPECT_EQ(Inspector::chunks(packet).size(), 1u) << "data() flattens into one chunk";
    EXPECT_EQ(Inspector::chunks(packet)[0].capacity, 257u + 512u);
}

TEST(DataPacketLayout, PrependUsesHeadroomUpTo256Bytes) {
    DataPacket fits;
    Bytes header = pattern(256, 9);
    fits.prepend(header.data(), header.size());
    EXPECT_EQ(Inspector::chunks(fits).size(), 1u);
    EXPECT_EQ(Inspector::chunks(fits)[0].offset, 0u);
    EXPECT_EQ(contents(fits), header);

    DataPacket overflows;
    Bytes big = pattern(257, 5);
    overflows.prepend(big.data(), big.size());
    auto chunks = Inspector::chunks(overflows);
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[0].length, 257u);
    EXPECT_EQ(chunks[1].length, 0u);
    EXPECT_EQ(contents(overflows), big);
}

TEST(DataPacketSkip, ChunkBoundariesAndBeyondTheEnd) {
    Bytes bytes = pattern(40, 2);
    DataPacket whole(bytes.data(), bytes.size());
    whole.skip(40);
    EXPECT_EQ(whole.size(), 0u);
    EXPECT_NE(whole.data(), nullptr);

    // Skipping exactly the first chunk frees it.
    DataPacket beyond(bytes.data(), bytes.size());
    Bytes more = pattern(300, 4);
    beyond.append(more.data(), more.size());
    beyond.skip(40);
    EXPECT_EQ(Inspector::chunks(beyond).size(), 1u);
    EXPECT_EQ(contents(beyond), more);
    beyond.append(more.data(), more.size());
    beyond.skip(10000);
    EXPECT_EQ(beyond.size(), 0u);
    auto chunks = Inspector::chunks(beyond);
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_EQ(chunks[0].length, 0u);
    // Still usable afterwards.
    beyond.append(bytes.data(), 5);
    EXPECT_EQ(contents(beyond), Bytes(bytes.begin(), bytes.begin() + 5));
}

TEST(DataPacketSteal, AppendLinksWhenTailIsFullAndCopiesOtherwise) {
    Bytes a = pattern(200, 1);
    Bytes b = pattern(257, 2);

    // 257 bytes exceed the 256 of tailroom: the chunks move over.
    DataPacket target(a.data(), a.size());
    DataPacket source(b.data(), b.size());
    target.stealAndAppendData(&source);
    EXPECT_EQ(source.size(), 0u);
    EXPECT_EQ(source.data(), nullptr);
    EXPECT_EQ(Inspector::chunks(target).size(), 2u);
    EXPECT_TRUE(Inspector::tailIsLast(target));
    Bytes expected = a;
    expected.insert(expected.end(), b.begin(), b.end());
    EXPECT_EQ(contents(target), expected);
    // Operations on the emptied source are ignored.
    source.append(a.data(), 10);
    source.skip(3);
    EXPECT_EQ(source.size(), 0u);

    // 40 bytes fit into the tailroom: copied, and the source keeps its bytes.
    Bytes small = pattern(40, 3);
    DataPacket copyTarget(a.data(), a.size());
    DataPacket copySource(small.data(), small.size());
    copyTarget.stealAndAppendData(&copySource);
    EXPECT_EQ(Inspector::chunks(copyTarget).size(), 1u);
    EXPECT_EQ(copySource.size(), 40u);
    EXPECT_EQ(contents(copySource), small);
    expected = a;
    expected.insert(expected.end(), small.begin(), small.end());
    EXPECT_EQ(contents(copyTarget), expected);
}

TEST(DataPacketSteal, PrependLinksWhenHeadroomIsShort) {
    Bytes a = pattern(50, 1);
    Bytes b = pattern(300, 2);
    DataPacket target(a.data(), a.size());
    DataPacket source(b.data(), b.size());
    target.stealAndPrependData(&source);
    EXPECT_EQ(source.data(), nullptr);
    EXPECT_EQ(target.size(), 350u);
    Bytes expected = b;
    expected.insert(expected.end(), a.begin(), a.end());
    EXPECT_EQ(contents(target), expected);
    // The tail is still the original chunk: appending goes behind it.
    target.append(b.data(), 300);
    EXPECT_TRUE(Inspector::tailIsLast(target));
    expected.insert(expected.end(), b.begin(), b.end());
    EXPECT_EQ(contents(target), expected);
}

// The copying path moves the head's offset back but leaves its length alone:
// the size counts the copied bytes while the head chunk's length does not.
TEST(DataPacketSteal, PrependCopyKeepsHeadLength) {
    Bytes a = pattern(50, 1);
    Bytes b = pattern(30, 2);
    DataPacket target(a.data(), a.size());
    DataPacket source(b.data(), b.size());
    target.stealAndPrependData(&source);

    EXPECT_EQ(source.size(), 30u);
    EXPECT_EQ(contents(source), b);
    EXPECT_EQ(target.size(), 80u);
    auto chunks = Inspector::chunks(target);
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_EQ(chunks[0].offset, 256u - 30u);
    EXPECT_EQ(chunks[0].length, 50u);
    // The visible bytes start with the prepended ones, followed by the first
    // 20 of the original data; the original's last 30 are beyond `length`.
    Bytes expected = b;
    expected.insert(expected.end(), a.begin(), a.begin() + 20);
    EXPECT_EQ(Inspector::bytes(target), expected);
}

// Differential check against a plain byte vector. The quirky prepend-steal is
// left out on purpose; it has its own test above.
TEST(DataPacketModel, RandomOperationSequencesMatchAVector) {
    std::random_device device;
    const unsigned seed = device();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);

    auto randomLength = [&] {
        switch (rng() % 4) {
            case 0:
                return static_cast<unsigned long>(rng() % 8);
            case 1:
                return static_cast<unsigned long>(250 + rng() % 12);  // around the room size
            default:
                return static_cast<unsigned long>(rng() % 700);
        }
    };

    for (int round = 0; round < 40; ++round) {
        DataPacket packet;
        Bytes model;
        for (int step = 0; step < 150; ++step) {
            unsigned long n = randomLength();
            Bytes chunk = pattern(n, static_cast<std::uint8_t>(rng()));
            int op = static_cast<int>(rng() % 6);
            switch (op) {
                case 0:
                    packet.append(chunk.data(), n);
                    model.insert(model.end(), chunk.begin(), chunk.end());
                    break;
                case 1:
                    packet.prepend(chunk.data(), n);
                    model.insert(model.begin(), chunk.begin(), chunk.end());
                    break;
                case 2: {
                    unsigned long k = rng() % (model.size() + 20);
                    packet.skip(k);
                    model.erase(model.begin(),
                                model.begin() + std::min<std::size_t>(k, model.size()));
                    break;
                }
                case 3: {
                    DataPacket other(chunk.data(), n);
                    Bytes more = pattern(randomLength(), 77);
                    other.append(more.data(), more.size());
                    Bytes otherModel = chunk;
                    otherModel.insert(otherModel.end(), more.begin(), more.end());
                    packet.stealAndAppendData(&other);
                    model.insert(model.end(), otherModel.begin(), otherModel.end());
                    // Either the source lost everything or it kept all of it.
                    if (other.data() != nullptr) {
                        ASSERT_EQ(contents(other), otherModel) << "step " << step;
                    } else {
                        ASSERT_EQ(other.size(), 0u);
                    }
                    break;
                }
                case 4:
                    packet.consolidate();
                    ASSERT_EQ(Inspector::chunks(packet).size(), 1u);
                    break;
                default:
                    ASSERT_EQ(contents(packet), model) << "step " << step;
                    break;
            }
            ASSERT_EQ(packet.size(), model.size()) << "step " << step << " op " << op;
            ASSERT_EQ(Inspector::bytes(packet), model) << "step " << step << " op " << op;
            ASSERT_TRUE(Inspector::tailIsLast(packet));
        }
    }
}

}  // namespace
