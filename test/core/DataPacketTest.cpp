#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
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

Bytes contents(DataPacket& packet) {
    auto* p = static_cast<std::uint8_t*>(packet.data());
    return p == nullptr ? Bytes() : Bytes(p, p + packet.size());
}

// 256 bytes fill an empty packet's room on either side; the 257th gets a
// chunk of its own, sized for it with room around it.
TEST(DataPacketLayout, RoomOf256BytesOnEitherSide) {
    Bytes const bytes = pattern(257, 1);
    for (bool front : {false, true}) {
        SCOPED_TRACE(front ? "prepend" : "append");
        DataPacket packet;
        if (front) {
            packet.prepend(&bytes[1], 256);
        } else {
            packet.append(bytes.data(), 256);
        }
        EXPECT_EQ(layout(packet).chunks.size(), 1u);
        if (front) {
            packet.prepend(bytes.data(), 1);
        } else {
            packet.append(&bytes[256], 1);
        }
        auto const shape = layout(packet);
        ASSERT_EQ(shape.chunks.size(), 2u);
        auto const added = front ? shape.chunks.front() : shape.chunks.back();
        EXPECT_EQ(added.capacity, 513u);
        EXPECT_EQ(added.offset, 256u);
        EXPECT_TRUE(shape.tailIsLast);
        EXPECT_EQ(shape.bytes, bytes);
        EXPECT_EQ(contents(packet), bytes);
        ASSERT_EQ(layout(packet).chunks.size(), 1u) << "data() flattens into one chunk";
        EXPECT_EQ(layout(packet).chunks[0].capacity, 257u + 512u);
    }
}

// Differential fuzz against a plain byte vector: seeded random sequences of
// every operation, at least a million in all. KW_FUZZ_SEED replays a run,
// KW_FUZZ_OPS changes its length. Stolen-from sources are freed at once, many
// of them made by create() or wrap(), so chunks left pointing into them show.
// Prepend-stealing is modelled where it links chunks; its copying path moves
// the head's offset back but leaves its length alone on purpose (the size
// counts the copied bytes): that is checked, then the packet is replaced.
unsigned long fromEnv(char const* name, unsigned long fallback) {
    char const* text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read before any thread
    return text != nullptr && *text != '\0' ? std::stoul(text) : fallback;
}

TEST(DataPacketModel, AMillionRandomOperationsMatchAVector) {
    unsigned long const seed = fromEnv("KW_FUZZ_SEED", std::random_device()());
    unsigned long const operations = fromEnv("KW_FUZZ_OPS", 1000000);
    SCOPED_TRACE("seed " + std::to_string(seed) + " (replay: KW_FUZZ_SEED=" + std::to_string(seed) +
                 ")");
    std::mt19937_64 rng(seed);
    auto below = [&](unsigned long n) { return static_cast<unsigned long>(rng() % n); };
    // Lengths cluster around the 256-byte rooms, where the paths divide.
    auto randomBytes = [&] {
        unsigned long const limits[] = {8, 700, 3000};
        unsigned long const pick = below(4);
        unsigned long const n = pick == 3 ? 250 + below(12) : below(limits[pick]);
        return pattern(n, static_cast<std::uint8_t>(rng()));
    };
    // A packet of one to three chunks, made in any of the ways there are, and its model.
    auto fresh = [&](Bytes& model) {
        model = randomBytes();
        std::shared_ptr<DataPacket> packet;
        bool const inPlace = below(2) == 0;
        switch (below(4)) {
            case 0:  // create()'s first chunk lives in the packet's own allocation
                packet = inPlace ? DataPacket::create(model.data(), model.size())
                                 : std::make_shared<DataPacket>(model.data(), model.size());
                break;
            case 1: {
                auto owner = std::make_shared<Bytes>(model);
                packet = DataPacket::wrap(owner->data(), owner->size(), owner);
                break;
            }
            case 2:
                packet = inPlace ? DataPacket::create() : std::make_shared<DataPacket>();
                model.clear();
                break;
            default:  // uninitialised content, filled through data()
                packet = inPlace ? DataPacket::create(model.size())
                                 : std::make_shared<DataPacket>(model.size());
                std::copy(model.begin(), model.end(), static_cast<std::uint8_t*>(packet->data()));
        }
        for (unsigned long parts = below(3); parts > 0; --parts) {
            Bytes more = randomBytes();
            packet->append(more.data(), more.size());
            model = cat(model, more);
        }
        return packet;
    };

    Bytes model;
    std::shared_ptr<DataPacket> packet = fresh(model);
    for (unsigned long op = 0; op < operations; ++op) {
        unsigned long const kind = below(10);
        SCOPED_TRACE("operation " + std::to_string(op) + " kind " + std::to_string(kind));
        switch (kind) {
            case 0:
            case 1: {
                Bytes bytes = randomBytes();
                if (kind == 0) {
                    packet->append(bytes.data(), bytes.size());
                    model = cat(model, bytes);
                } else {
                    packet->prepend(bytes.data(), bytes.size());
                    model = cat(bytes, model);
                }
                break;
            }
            case 2: {
                unsigned long const n = below(model.size() + 300);
                packet->skip(n);
                model.erase(model.begin(),
                            model.begin() + static_cast<std::ptrdiff_t>(
                                                std::min<std::size_t>(n, model.size())));
                break;
            }
            case 3:
            case 4: {
                Bytes otherModel;
                auto other = fresh(otherModel);
                bool const prepend = kind == 4;
                auto const shape = layout(*packet);
                auto const head = shape.chunks.front(), tail = shape.chunks.back();
                bool const links =
                    prepend ? head.offset < otherModel.size()
                            : tail.offset + tail.length + otherModel.size() > tail.capacity;
                if (prepend) {
                    packet->stealAndPrependData(other.get());
                } else {
                    packet->stealAndAppendData(other.get());
                }
                if (links) {
                    ASSERT_EQ(other->size(), 0u);
                    ASSERT_EQ(other->data(), nullptr);
                    other->append(otherModel.data(), otherModel.size());  // ignored
                    ASSERT_EQ(other->size(), 0u);
                } else {
                    ASSERT_EQ(contents(*other), otherModel) << "a copying steal keeps the source";
                }
                if (prepend && !links) {
                    ASSERT_EQ(packet->size(), model.size() + otherModel.size());
                    auto const after = layout(*packet).chunks.front();
                    ASSERT_EQ(after.offset, head.offset - otherModel.size());
                    ASSERT_EQ(after.length, head.length);
                    // The head shows the copied bytes first, as many as its length allows.
                    auto const shown = static_cast<std::ptrdiff_t>(
                        std::min<std::size_t>(head.length, otherModel.size()));
                    ASSERT_TRUE(std::equal(otherModel.begin(), otherModel.begin() + shown,
                                           layout(*packet).bytes.begin()));
                    packet = fresh(model);
                    break;
                }
                model = prepend ? cat(otherModel, model) : cat(model, otherModel);
                break;
            }
            case 5:
                packet->consolidate();
                ASSERT_EQ(layout(*packet).chunks.size(), 1u);
                break;
            case 6:
                // Writes through data() land in the packet.
                ASSERT_EQ(contents(*packet), model);
                if (!model.empty()) {
                    unsigned long const at = below(model.size());
                    model[at] = static_cast<std::uint8_t>(rng());
                    static_cast<std::uint8_t*>(packet->data())[at] = model[at];
                }
                break;
            case 7:
                if (below(20) == 0 || model.size() > std::size_t{64} * 1024) {
                    packet = fresh(model);
                }
                break;
            default:
                // Even emptied by skip, a packet keeps a chunk to write into.
                ASSERT_NE(packet->data(), nullptr);
        }
        ASSERT_EQ(packet->size(), model.size());
        if (op % 8 == 0) {
            auto shape = layout(*packet);
            ASSERT_TRUE(shape.tailIsLast);
            for (auto const& chunk : shape.chunks) {
                ASSERT_LE(chunk.offset + chunk.length, chunk.capacity);
            }
            ASSERT_EQ(shape.bytes, model);
        }
    }
}

}  // namespace
