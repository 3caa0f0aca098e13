// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The formats of the SA path client: where every bit of a record stands, and the host form that is
// made of a record from the wire.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tarv/sa-mads.h"
#include "tests/support/machine_test.h"

namespace {

using Bytes = std::vector<int>;
using Path = ib_path_record_v2_t;

template <class T>
Bytes bytes_of(const T& object) {
    const auto* begin = reinterpret_cast<const u8*>(&object);
    return Bytes(begin, begin + sizeof object);
}

/// A field of the host form set to a value, in a record of zeros, changes these bytes from `offset`
/// on, as they lie in the memory of this little-endian host.
struct Field {
    const char* name;
    void (*set)(Path&);
    std::size_t offset;
    Bytes expected;
};
class HostForm : public testing::TestWithParam<Field> {};
TEST_P(HostForm, HasTheFieldAt) {
    const Field& field = GetParam();
    Path path = {};
    field.set(path);
    Bytes whole(sizeof path, 0);
    std::copy(field.expected.begin(), field.expected.end(),
              whole.begin() + static_cast<std::ptrdiff_t>(field.offset));
    EXPECT_EQ(bytes_of(path), whole);
}
INSTANTIATE_TEST_SUITE_P(
    Fields, HostForm,
    testing::Values(
        Field{"dlid", [](Path& p) { p.dlid = 0x1234; }, 40, {0x34, 0x12}},
        Field{"slid", [](Path& p) { p.slid = 0x1234; }, 42, {0x34, 0x12}},
        Field{"hop_limut", [](Path& p) { p.hop_limut = 0xA5; }, 44, {0xA5}},
        Field{"flow_label", [](Path& p) { p.flow_label = 0x9ABCD; }, 45, {0xCD, 0xAB, 0x09}},
        Field{"reserved3", [](Path& p) { p.reserved3 = 7; }, 47, {0x70}},
        Field{"raw_traffic", [](Path& p) { p.raw_traffic = 1; }, 47, {0x80}},
        Field{"traffic_class", [](Path& p) { p.traffic_class = 0xA5; }, 48, {0xA5}},
        Field{"numb_path", [](Path& p) { p.numb_path = 0x55; }, 49, {0x55}},
        Field{"reversible", [](Path& p) { p.reversible = 1; }, 49, {0x80}},
        Field{"pkey", [](Path& p) { p.pkey = 0x8001; }, 50, {0x01, 0x80}},
        Field{"sl", [](Path& p) { p.sl = 0xA; }, 52, {0x0A}},
        Field{"reserved4", [](Path& p) { p.reserved4 = 0xABC; }, 52, {0xC0, 0xAB}},
        Field{"mtu", [](Path& p) { p.mtu = 0x2A; }, 54, {0x2A}},
        Field{"mtu_selector", [](Path& p) { p.mtu_selector = 2; }, 54, {0x80}},
        Field{"rate", [](Path& p) { p.rate = 0x2A; }, 55, {0x2A}},
        Field{"rate_selector", [](Path& p) { p.rate_selector = 1; }, 55, {0x40}},
        Field{"pkt_life_time", [](Path& p) { p.pkt_life_time = 0x2A; }, 56, {0x2A}},
        Field{"life_time_selector", [](Path& p) { p.pkt_life_time_selector = 3; }, 56, {0xC0}},
        Field{"preference", [](Path& p) { p.preference = 0xA5; }, 57, {0xA5}}),
    support::row_name);

/// 64 bytes of the wire and the 64 bytes of the host form that they become.
struct Conversion {
    const char* name;
    Bytes wire;
    Bytes host;
};

Bytes repeated(std::size_t count, int byte) {
    return Bytes(count, byte);
}

Bytes joined(std::initializer_list<Bytes> pieces) {
    Bytes all;
    for (const Bytes& piece : pieces)
        all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

class FromWire : public testing::TestWithParam<Conversion> {};
TEST_P(FromWire, BecomesHostForm) {
    const Conversion& row = GetParam();
    ASSERT_EQ(row.wire.size(), sizeof(Path));
    // At an odd address: records stand anywhere in an answer.
    std::vector<u8> room(sizeof(Path) + 1);
    std::copy(row.wire.begin(), row.wire.end(), room.begin() + 1);
    Path path;
    std::memset(&path, 0xEE, sizeof path);
    ib_path_record_from_wire(room.data() + 1, &path);
    EXPECT_EQ(bytes_of(path), row.host);
}
INSTANTIATE_TEST_SUITE_P(
    Records, FromWire,
    testing::Values(Conversion{"nothing", repeated(64, 0),
                               joined({repeated(49, 0), {1}, repeated(14, 0)})},
                    // Reserved bits, Reversible, NumbPath and Preference are not carried.
                    Conversion{"every_bit", repeated(64, 0xFF),
                               joined({repeated(8, 0),
                                       repeated(32, 0xFF),
                                       {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x8F, 0xFF, 0x01,
                                        0xFF, 0xFF, 0x0F, 0x00, 0xFF, 0xFF, 0xFF, 0x00},
                                       repeated(6, 0)})},
                    Conversion{"every_byte_another",
                               joined({repeated(8, 0),
                                       {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 2, 0xC9, 3, 4, 5, 6, 7},
                                       {0xFE, 0x81, 0, 0, 0, 0, 0, 0, 8, 9, 10, 11, 12, 13, 14, 15},
                                       {0x01, 0x02, 0x03, 0x04, 0x09, 0xAB, 0xCD, 0xFF, 0x11, 0x83,
                                        0x80, 0x01, 0x12, 0x35, 0x84, 0x47, 0xD2, 0x09},
                                       repeated(6, 0)}),
                               joined({repeated(8, 0),
                                       {7, 6, 5, 4, 3, 0xC9, 2, 0, 0, 0, 0, 0, 0, 0, 0x80, 0xFE},
                                       {15, 14, 13, 12, 11, 10, 9, 8, 0, 0, 0, 0, 0, 0, 0x81, 0xFE},
                                       {0x02, 0x01, 0x04, 0x03, 0xFF, 0xCD, 0xAB, 0x09, 0x11, 0x01,
                                        0x01, 0x80, 0x05, 0x00, 0x84, 0x47, 0xD2, 0x00},
                                       repeated(6, 0)})}),
    support::row_name);

TEST(Ntoh, TurnsAnySizeRound) {
    for (u8 size = 0; size <= 17; size++) {
        char source[18];
        char copy[18];
        char expected[18];
        for (int i = 0; i < 18; i++) {
            source[i] = copy[i] = static_cast<char>(i + 1);
            expected[i] = static_cast<char>(i < size ? size - i : i + 1);
        }
        ntoh(copy, source, size);
        EXPECT_EQ(std::memcmp(copy, expected, sizeof copy), 0) << "copied " << int{size};
        ntoh(source, source, size);
        EXPECT_EQ(std::memcmp(source, expected, sizeof source), 0) << "in place " << int{size};
    }
}

TEST(GidHalves, AreThePrefixAndTheInterface) {
    gx_gid_t gid = {{7, 6, 5, 4, 3, 0xC9, 2, 0, 1, 0, 0, 0, 0, 0, 0x80, 0xFE}};
    EXPECT_EQ(gid_high(gid), 0xFE80000000000001u);
    EXPECT_EQ(gid_low(gid), 0x0002C90304050607u);
}

}  // namespace
