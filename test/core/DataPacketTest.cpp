#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
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

// Differential fuzz against a plain byte vector: seeded random sequences of
// every operation, at least a million in all. KW_FUZZ_SEED replays a run,
// KW_FUZZ_OPS changes its length. Stolen-from sources are freed at once, half
// of them made by create(), so chunks left pointing into them show. Prepend-
// stealing is modelled where it links chunks; its copying path moves the
// head's offset back but leaves its length alone on purpose (the size counts
// the copied bytes): that is checked, then the packet is replaced.
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
    auto randomLength = [&]() -> unsigned long {
        switch (below(4)) {
            case 0:
                return below(8);
            case 1:
                return 250 + below(12);
            case 2:
                return below(700);
            default:
                return below(3000);
        }
    };
    auto randomBytes = [&](unsigned long n) {
        return pattern(n, static_cast<std::uint8_t>(rng()));
    };
    // A packet of one to three chunks and its model.
    auto randomPacket = [&](Bytes& model) {
        model = randomBytes(randomLength());
        // Half of them made by create(), whose first chunk lives in the packet's own allocation.
        auto packet = below(2) == 0 ? DataPacket::create(model.data(), model.size())
                                    : std::make_shared<DataPacket>(model.data(), model.size());
        for (unsigned long parts = below(3); parts > 0; --parts) {
            Bytes more = randomBytes(randomLength());
            packet->append(more.data(), more.size());
            model = cat(model, more);
        }
        return packet;
    };
    auto fresh = [&](Bytes& model) -> std::shared_ptr<DataPacket> {
        switch (below(3)) {
            case 0:
                model.clear();
                return below(2) == 0 ? DataPacket::create() : std::make_shared<DataPacket>();
            case 1: {
                // Uninitialised content: fill it through data() first.
                model = randomBytes(randomLength());
                auto packet = below(2) == 0 ? DataPacket::create(model.size())
                                            : std::make_shared<DataPacket>(model.size());
                std::copy(model.begin(), model.end(), static_cast<std::uint8_t*>(packet->data()));
                return packet;
            }
            default:
                return randomPacket(model);
        }
    };

    Bytes model;
    std::shared_ptr<DataPacket> packet = fresh(model);
    for (unsigned long op = 0; op < operations; ++op) {
        unsigned long const kind = below(10);
        SCOPED_TRACE("operation " + std::to_string(op) + " kind " + std::to_string(kind));
        switch (kind) {
            case 0: {
                Bytes bytes = randomBytes(randomLength());
                packet->append(bytes.data(), bytes.size());
                model = cat(model, bytes);
                break;
            }
            case 1: {
                Bytes bytes = randomBytes(randomLength());
                packet->prepend(bytes.data(), bytes.size());
                model = cat(bytes, model);
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
                auto other = randomPacket(otherModel);
                bool const prepend = kind == 4;
                auto const head = layout(*packet).chunks.front();
                bool const links = prepend ? head.offset < otherModel.size()
                                           : layout(*packet).chunks.back().offset +
                                                     layout(*packet).chunks.back().length +
                                                     otherModel.size() >
                                                 layout(*packet).chunks.back().capacity;
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
                    auto const shape = layout(*packet);
                    ASSERT_EQ(shape.chunks.front().offset, head.offset - otherModel.size());
                    ASSERT_EQ(shape.chunks.front().length, head.length);
                    // The head shows the copied bytes first, as many as its length allows.
                    auto const shown = static_cast<std::ptrdiff_t>(
                        std::min<std::size_t>(head.length, otherModel.size()));
                    ASSERT_TRUE(std::equal(otherModel.begin(), otherModel.begin() + shown,
                                           shape.bytes.begin()));
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
            case 6: {
                // Writes through data() land in the packet.
                ASSERT_EQ(contents(*packet), model);
                if (!model.empty()) {
                    unsigned long const at = below(model.size());
                    model[at] = static_cast<std::uint8_t>(rng());
                    static_cast<std::uint8_t*>(packet->data())[at] = model[at];
                }
                break;
            }
            case 7:
                if (below(20) == 0 || model.size() > std::size_t{64} * 1024) {
                    packet = fresh(model);
                }
                break;
            default:
                // Even emptied by skip, a packet keeps a chunk to write into.
                ASSERT_NE(packet->data(), nullptr);
                break;
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
