#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/DataPacket.h"

namespace KW {

// Reads the chunk list that the packet keeps to itself.
class DataPacketInspector {
  public:
    struct Chunk {
        unsigned long capacity, offset, length;
    };
    struct Layout {
        std::vector<Chunk> chunks;
        std::vector<std::uint8_t> bytes;  // what each chunk says it holds, in order
        bool tailIsLast;
    };

    static Layout layout(DataPacket& packet) {
        Layout out{{}, {}, packet.tail == nullptr};
        for (auto* c = packet.head.get(); c != nullptr; c = c->next.get()) {
            out.chunks.push_back({c->capacity, c->offset, c->length});
            auto* begin = c->buffer.get() + c->offset;
            out.bytes.insert(out.bytes.end(), begin, begin + c->length);
            out.tailIsLast = c == packet.tail;
        }
        return out;
    }
};

}  // namespace KW

namespace {

using KW::DataPacket;
auto layout(DataPacket& packet) {
    return KW::DataPacketInspector::layout(packet);
}
using Bytes = std::vector<std::uint8_t>;

Bytes pattern(std::size_t n, std::uint8_t seed) {
    Bytes out(n);
    for (std::size_t i = 0; i < n; ++i) {
        out[i] = static_cast<std::uint8_t>(seed + i * 7);
    }
    return out;
}

Bytes cat(Bytes a, Bytes const& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A packet made by create() (one allocation) or by the plain constructor.
std::shared_ptr<DataPacket> make(bool inPlace, Bytes const& bytes) {
    return inPlace ? DataPacket::create(bytes.data(), bytes.size())
                   : std::make_shared<DataPacket>(bytes.data(), bytes.size());
}

// Frees a stolen-from source and reuses its memory, so that chunks still
// pointing into it would show garbage.
void dropSource(std::shared_ptr<DataPacket>& source, std::size_t size) {
    source.reset();
    Bytes junk(size, 0xee);
    auto reuse = DataPacket::create(junk.data(), junk.size());
}

Bytes contents(DataPacket& packet) {
    auto* p = static_cast<std::uint8_t*>(packet.data());
    return p == nullptr ? Bytes() : Bytes(p, p + packet.size());
}

TEST(DataPacketLayout, RoomOf256BytesOnEitherSide) {
    Bytes bytes = pattern(257, 1);
    // 256 bytes fill the tailroom; the 257th adds one chunk with room around it.
    DataPacket appended;
    appended.append(bytes.data(), 256);
    EXPECT_EQ(layout(appended).chunks.size(), 1u);
    appended.append(&bytes[256], 1);
    auto chunks = layout(appended).chunks;
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[1].capacity, 513u);
    EXPECT_TRUE(layout(appended).tailIsLast);
    EXPECT_EQ(contents(appended), bytes);
    ASSERT_EQ(layout(appended).chunks.size(), 1u) << "data() flattens into one chunk";
    EXPECT_EQ(layout(appended).chunks[0].capacity, 257u + 512u);

    // 256 bytes fit the headroom; 257 need a chunk in front.
    DataPacket fits;
    fits.prepend(bytes.data(), 256);
    EXPECT_EQ(layout(fits).chunks.size(), 1u);
    EXPECT_EQ(layout(fits).chunks[0].offset, 0u);
    EXPECT_EQ(contents(fits), Bytes(bytes.begin(), bytes.begin() + 256));
    DataPacket overflows;
    overflows.prepend(bytes.data(), 257);
    chunks = layout(overflows).chunks;
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[0].length, 257u);
    EXPECT_EQ(chunks[1].length, 0u);
    EXPECT_EQ(contents(overflows), bytes);
}

TEST(DataPacketSkip, ChunkBoundariesAndBeyondTheEnd) {
    Bytes bytes = pattern(40, 2), more = pattern(300, 4);
    DataPacket whole(bytes.data(), bytes.size());
    whole.skip(40);
    EXPECT_EQ(whole.size(), 0u);
    EXPECT_NE(whole.data(), nullptr);

    // Skipping exactly the first chunk frees it.
    DataPacket beyond(bytes.data(), bytes.size());
    beyond.append(more.data(), more.size());
    beyond.skip(40);
    EXPECT_EQ(layout(beyond).chunks.size(), 1u);
    EXPECT_EQ(contents(beyond), more);
    beyond.append(more.data(), more.size());
    beyond.skip(10000);
    auto chunks = layout(beyond).chunks;
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_EQ(chunks[0].length, 0u);
    EXPECT_EQ(beyond.size(), 0u);
    beyond.append(bytes.data(), 5);  // still usable
    EXPECT_EQ(contents(beyond), Bytes(bytes.begin(), bytes.begin() + 5));
}

TEST(DataPacketSteal, AppendLinksPastTheTailroomAndCopiesWithinIt) {
    Bytes a = pattern(200, 1), big = pattern(257, 2), small = pattern(40, 3);
    for (bool inPlace : {false, true}) {
        SCOPED_TRACE(inPlace ? "create()" : "constructor");
        auto target = make(inPlace, a), source = make(inPlace, big);
        target->stealAndAppendData(source.get());
        EXPECT_EQ(source->size(), 0u);
        EXPECT_EQ(source->data(), nullptr);
        // Operations on the emptied source are ignored.
        source->append(a.data(), 10);
        source->skip(3);
        EXPECT_EQ(source->size(), 0u);
        dropSource(source, big.size());
        auto chunks = layout(*target).chunks;
        ASSERT_EQ(chunks.size(), 2u);
        EXPECT_EQ(chunks[1].capacity, 257u + 512u);
        EXPECT_TRUE(layout(*target).tailIsLast);
        EXPECT_EQ(contents(*target), cat(a, big));
    }

    DataPacket copyTarget(a.data(), a.size()), copySource(small.data(), small.size());
    copyTarget.stealAndAppendData(&copySource);
    EXPECT_EQ(layout(copyTarget).chunks.size(), 1u);
    EXPECT_EQ(contents(copySource), small);
    EXPECT_EQ(contents(copyTarget), cat(a, small));
}

TEST(DataPacketSteal, PrependLinksPastTheHeadroomAndCopiesWithinIt) {
    Bytes a = pattern(50, 1), big = pattern(300, 2), small = pattern(30, 3);
    for (bool inPlace : {false, true}) {
        SCOPED_TRACE(inPlace ? "create()" : "constructor");
        auto target = make(inPlace, a), source = make(inPlace, big);
        target->stealAndPrependData(source.get());
        EXPECT_EQ(source->data(), nullptr);
        dropSource(source, big.size());
        EXPECT_EQ(layout(*target).bytes, cat(big, a));
        // The tail is still the original chunk: appending goes behind it.
        target->append(big.data(), big.size());
        EXPECT_TRUE(layout(*target).tailIsLast);
        EXPECT_EQ(contents(*target), cat(cat(big, a), big));
    }

    // Copying moves the head's offset back but leaves its length alone: the
    // size counts the copied bytes, the chunk shows only the first 20 of `a`.
    DataPacket copyTarget(a.data(), a.size()), copySource(small.data(), small.size());
    copyTarget.stealAndPrependData(&copySource);
    EXPECT_EQ(contents(copySource), small);
    EXPECT_EQ(copyTarget.size(), 80u);
    auto chunks = layout(copyTarget).chunks;
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_EQ(chunks[0].offset, 256u - 30u);
    EXPECT_EQ(chunks[0].length, 50u);
    EXPECT_EQ(layout(copyTarget).bytes, cat(small, Bytes(a.begin(), a.begin() + 20)));
}

// Differential check against a plain byte vector; the quirky prepend-steal is
// covered above instead.
TEST(DataPacketModel, RandomOperationSequencesMatchAVector) {
    unsigned const seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto randomLength = [&]() -> unsigned long {
        unsigned long kind = rng() % 4, r = rng();
        return kind == 0 ? r % 8 : kind == 1 ? 250 + r % 12 : r % 700;  // 250..261: room size
    };
    for (int round = 0; round < 40; ++round) {
        // Odd rounds use packets made by create(), whose first chunk lives in
        // the packet's own allocation.
        bool const inPlace = round % 2 == 1;
        auto holder = inPlace ? DataPacket::create() : std::make_shared<DataPacket>();
        DataPacket& packet = *holder;
        Bytes model;
        for (int step = 0; step < 150; ++step) {
            Bytes chunk = pattern(randomLength(), static_cast<std::uint8_t>(rng()));
            int op = static_cast<int>(rng() % 6);
            SCOPED_TRACE("step " + std::to_string(step) + " op " + std::to_string(op));
            switch (op) {
                case 0:
                    packet.append(chunk.data(), chunk.size());
                    model = cat(model, chunk);
                    break;
                case 1:
                    packet.prepend(chunk.data(), chunk.size());
                    model = cat(chunk, model);
                    break;
                case 2: {
                    unsigned long k = rng() % (model.size() + 20);
                    packet.skip(k);
                    model.erase(model.begin(),
                                model.begin() + static_cast<std::ptrdiff_t>(
                                                    std::min<std::size_t>(k, model.size())));
                    break;
                }
                case 3: {
                    Bytes otherModel = cat(chunk, pattern(randomLength(), 77));
                    auto other = make(inPlace, chunk);
                    other->append(otherModel.data() + chunk.size(),
                                  otherModel.size() - chunk.size());
                    packet.stealAndAppendData(other.get());
                    model = cat(model, otherModel);
                    // Either the source lost everything or it kept all of it.
                    if (other->data() != nullptr) {
                        ASSERT_EQ(contents(*other), otherModel);
                    } else {
                        ASSERT_EQ(other->size(), 0u);
                    }
                    dropSource(other, chunk.size());
                    break;
                }
                case 4:
                    packet.consolidate();
                    ASSERT_EQ(layout(packet).chunks.size(), 1u);
                    break;
                default:
                    ASSERT_EQ(contents(packet), model);
                    break;
            }
            ASSERT_EQ(packet.size(), model.size());
            auto shape = layout(packet);
            ASSERT_EQ(shape.bytes, model);
            ASSERT_TRUE(shape.tailIsLast);
        }
    }
}

}  // namespace
