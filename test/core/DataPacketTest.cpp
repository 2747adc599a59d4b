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

// Reaches the chunk list that the packet keeps to itself.
class DataPacketInspector {
  public:
    static DataPacketChunk const* head(DataPacket& packet) { return packet.head.get(); }
    static DataPacketChunk const* tail(DataPacket& packet) { return packet.tail; }
};

}  // namespace KW

namespace {

using KW::DataPacket;
using Bytes = std::vector<std::uint8_t>;
struct Chunk {
    unsigned long capacity, offset, length;
};

// The chunk list; with `bytes`, also what each chunk says it holds, in order;
// with `tailIsLast`, whether the tail is the last chunk.
std::vector<Chunk> chunks(DataPacket& packet, Bytes* bytes = nullptr, bool* tailIsLast = nullptr) {
    std::vector<Chunk> out;
    KW::DataPacketChunk const* last = nullptr;
    for (auto* c = KW::DataPacketInspector::head(packet); c != nullptr; c = c->next.get()) {
        out.push_back({c->capacity, c->offset, c->length});
        if (bytes != nullptr) {
            bytes->insert(bytes->end(), &c->buffer[c->offset], &c->buffer[c->offset] + c->length);
        }
        last = c;
    }
    if (tailIsLast != nullptr) {
        *tailIsLast = last == KW::DataPacketInspector::tail(packet);
    }
    return out;
}

Bytes contents(DataPacket& packet) {
    auto* p = static_cast<std::uint8_t*>(packet.data());
    return p == nullptr ? Bytes() : Bytes(p, p + packet.size());
}

// A chunk the packet allocated for n bytes: `room` bytes free on either side.
bool fresh(Chunk const& c, std::size_t n, unsigned long room = 256) {
    return c.capacity == n + 2 * room && c.offset == room && c.length == n;
}

// Whether n more bytes at the front or the back need a chunk of their own.
bool links(std::vector<Chunk> const& list, std::size_t n, bool front) {
    return front ? list.front().offset < n
                 : list.back().offset + list.back().length + n > list.back().capacity;
}

unsigned long fromEnv(char const* name, unsigned long fallback) {
    char const* text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read before any thread
    return text != nullptr && *text != '\0' ? std::stoul(text) : fallback;
}

// Differential fuzz against a plain byte vector: seeded random sequences of
// every operation, at least a million in all. KW_FUZZ_SEED replays a run,
// KW_FUZZ_OPS changes its length. Stolen-from sources are freed at once, many
// of them made by create() or wrap(), so chunks left pointing into them show.
// Every chunk the packet allocates (new, added, flattened) has 256 bytes of
// room on either side. Prepend-stealing is modelled where it links chunks;
// its copying path moves the head's offset back but leaves its length alone
// on purpose (the size counts the copied bytes): that is checked, then the
// packet is replaced.
TEST(DataPacketModel, AMillionRandomOperationsMatchAVector) {
    unsigned long const seed = fromEnv("KW_FUZZ_SEED", std::random_device()());
    unsigned long const operations = fromEnv("KW_FUZZ_OPS", 1000000);
    SCOPED_TRACE("seed " + std::to_string(seed) + " (replay: KW_FUZZ_SEED=" + std::to_string(seed) +
                 ")");
    std::mt19937_64 rng(seed);
    auto below = [&](unsigned long n) { return static_cast<unsigned long>(rng() % n); };
    // Lengths cluster around the 256-byte rooms, where the paths divide.
    auto randomBytes = [&] {
        unsigned long const limits[] = {8, 700, 3000}, pick = below(4);
        Bytes out(pick == 3 ? 250 + below(12) : below(limits[pick]));
        std::generate(out.begin(), out.end(),
                      [b = static_cast<std::uint8_t>(rng())]() mutable { return b += 7; });
        return out;
    };
    bool madeFresh = true;
    // A packet of one to three chunks, made in any of the ways there are, and its model.
    auto make = [&](Bytes& model) {
        model = randomBytes();
        std::shared_ptr<DataPacket> packet;
        bool const inPlace = below(2) == 0;
        unsigned long room = 256;
        switch (below(4)) {
            case 0:  // create()'s first chunk lives in the packet's own allocation
                packet = inPlace ? DataPacket::create(model.data(), model.size())
                                 : std::make_shared<DataPacket>(model.data(), model.size());
                break;
            case 1: {
                auto owner = std::make_shared<Bytes>(model);
                packet = DataPacket::wrap(owner->data(), owner->size(), owner);
                room = model.empty() ? 256 : 0;
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
        madeFresh = madeFresh && fresh(chunks(*packet).at(0), model.size(), room);
        for (unsigned long parts = below(3); parts > 0; --parts) {
            Bytes more = randomBytes();
            packet->append(more.data(), more.size());
            model.insert(model.end(), more.begin(), more.end());
        }
        return packet;
    };

    Bytes model;
    std::shared_ptr<DataPacket> packet = make(model);
    for (unsigned long op = 0; op < operations; ++op) {
        unsigned long const kind = below(10);
        SCOPED_TRACE("operation " + std::to_string(op) + " kind " + std::to_string(kind));
        auto const before = chunks(*packet);
        bool const front = kind == 1 || kind == 3;
        switch (kind) {
            case 0:
            case 1: {
                Bytes bytes = randomBytes();
                ((*packet).*(front ? &DataPacket::prepend : &DataPacket::append))(bytes.data(),
                                                                                  bytes.size());
                model.insert(front ? model.begin() : model.end(), bytes.begin(), bytes.end());
                auto const after = chunks(*packet);
                bool const linked = links(before, bytes.size(), front);
                ASSERT_EQ(after.size(), before.size() + (linked ? 1 : 0));
                ASSERT_TRUE(!linked || fresh(front ? after.front() : after.back(), bytes.size()));
                break;
            }
            case 2: {
                std::size_t const n = below(model.size() + 300);
                packet->skip(n);  // past the end at times: the excess is ignored
                model.erase(model.begin(),
                            model.begin() + static_cast<std::ptrdiff_t>(std::min(n, model.size())));
                break;
            }
            case 3:
            case 4: {
                Bytes stolen;
                auto other = make(stolen);
                bool const linked = links(before, stolen.size(), front);
                ((*packet).*(front ? &DataPacket::stealAndPrependData
                                   : &DataPacket::stealAndAppendData))(other.get());
                if (linked) {
                    ASSERT_EQ(other->size(), 0u);
                    ASSERT_EQ(other->data(), nullptr);
                    other->append(stolen.data(), stolen.size());  // ignored
                    ASSERT_EQ(other->size(), 0u);
                } else {
                    ASSERT_EQ(contents(*other), stolen) << "a copying steal keeps the source";
                }
                if (front && !linked) {
                    ASSERT_EQ(packet->size(), model.size() + stolen.size());
                    Bytes shown;
                    auto const after = chunks(*packet, &shown);
                    ASSERT_EQ(after[0].offset, before[0].offset - stolen.size());
                    ASSERT_EQ(after[0].length, before[0].length);
                    // The head shows the copied bytes first, as many as its length allows.
                    auto const n = std::min<std::size_t>(before[0].length, stolen.size());
                    ASSERT_TRUE(std::equal(stolen.begin(), stolen.begin() + n, shown.begin()));
                    packet = make(model);
                    break;
                }
                model.insert(front ? model.begin() : model.end(), stolen.begin(), stolen.end());
                break;
            }
            case 5:
                if (below(2) == 0) {
                    packet->consolidate();
                }
                // Even emptied by skip, a packet keeps a chunk to write into.
                ASSERT_NE(packet->data(), nullptr);
                ASSERT_EQ(chunks(*packet).size(), 1u);
                ASSERT_TRUE(before.size() == 1 || fresh(chunks(*packet)[0], model.size()));
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
            default:
                if (below(60) == 0 || model.size() > std::size_t{64} * 1024) {
                    packet = make(model);
                }
        }
        ASSERT_EQ(packet->size(), model.size());
        if (op % 8 == 0) {
            Bytes bytes;
            bool tailIsLast = false;
            for (auto const& chunk : chunks(*packet, &bytes, &tailIsLast)) {
                ASSERT_LE(chunk.offset + chunk.length, chunk.capacity);
            }
            ASSERT_TRUE(tailIsLast);
            ASSERT_EQ(bytes, model);
            ASSERT_TRUE(madeFresh) << "a new packet's chunk lacks its room";
        }
    }
}

}  // namespace
