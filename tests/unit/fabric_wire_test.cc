// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The wire formats: where every field stands, that nothing is lost there and back, and capture
// files.
#include <cstring>

#include "tests/support/fabric_test.h"

using namespace fabric;
using namespace fabric_testing;

namespace {

/* Every bit that a format names survives the way in and out again, every other is cleared. */
template <class T>
class WireFormat : public testing::Test {};
using Formats =
    testing::Types<MadHeader, RmppHeader, SaHeader, MultiPathRecord, PathRecord, ArpPacket,
                   LocalRouteHeader, GlobalRouteHeader, BaseTransportHeader, DatagramHeader>;
TYPED_TEST_SUITE(WireFormat, Formats);

TYPED_TEST(WireFormat, KeepsEveryFieldAndClearsTheRest) {
    constexpr std::size_t size = TypeParam::wire_size;
    Bytes expected(size);
    for (const FieldPlace& field : places<TypeParam>()) {
        for (unsigned bit = field.bit; bit < field.bit + field.width; bit++)
            expected[bit / 8] = static_cast<std::uint8_t>(expected[bit / 8] | 0x80 >> bit % 8);
    }
    for (unsigned pattern : {0xFFu, 0xA5u, 0x3Cu}) {
        Bytes in(size);
        Bytes kept(size);
        for (std::size_t i = 0; i < size; i++) {
            in[i] = static_cast<std::uint8_t>(pattern + (pattern == 0xFF ? 0 : i * 7));
            kept[i] = in[i] & expected[i];
        }
        Bytes out(size, 0xEE);
        encode(*decode<TypeParam>(in), out);
        EXPECT_EQ(out, kept);
    }
    EXPECT_FALSE(decode<TypeParam>(Bytes(size - 1)));
}

TEST(Wire, GidsAreHeldLeastSignificantByteFirst) {
    Gid on_wire = make_gid(0xFE80000000000001, 0x0002C90300001002);
    gx_gid_t inside = held(on_wire);
    EXPECT_EQ(inside.raw[0], 0x02);
    EXPECT_EQ(inside.raw[15], 0xFE);
    EXPECT_EQ(wire(inside), on_wire);
    EXPECT_EQ(guid_of(on_wire), 0x0002C90300001002u);
    EXPECT_EQ(format_gid(on_wire), "fe80::1:2:c903:0:1002");
}

TEST(Wire, LinkHeadersSurroundADatagram) {
    Packet packet;
    packet.slid = 0x000B;
    packet.dlid = 0xC000;
    packet.sl = 5;
    packet.has_grh = true;
    packet.sgid = gid(0x1001);
    packet.dgid = broadcast_gid(0x8002);
    packet.pkey = 0x8002;
    packet.dest_qp = 0xFFFFFF;
    packet.qkey = 0xB1B;
    packet.src_qp = 0x4A0001;
    packet.payload = {1, 2, 3, 4, 5};
    EXPECT_EQ(hex(encode_link(packet)),
              "00 53 c0 00 00 14 00 0b "                          // 20 words
              "60 00 00 00 00 20 1b 00 "                          // 32 bytes follow
              "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 10 01 "  // from
              "ff 12 40 1b 80 02 00 00 00 00 00 00 ff ff ff ff "  // to everybody
              "64 30 80 02 00 ff ff ff 00 00 00 00 "              // three bytes of padding
              "00 00 0b 1b 00 4a 00 01 "                          // Q_Key, sender
              "01 02 03 04 05 00 00 00 00 00 00 00 00 00");
}

TEST(Wire, CaptureFilesHoldErfRecords) {
    auto out = std::make_unique<std::ostringstream>();
    std::ostringstream& text = *out;
    CaptureFile file(std::move(out));
    Packet packet;
    packet.payload = {7};
    file.write({Direction::out, 2, 0, packet}, std::chrono::milliseconds(1500));
    std::string bytes = text.str();
    auto* raw = reinterpret_cast<const std::uint8_t*>(bytes.data());
    EXPECT_EQ(hex({raw, 64}),
              "d4 c3 b2 a1 02 00 04 00 00 00 00 00 00 00 00 00 ff ff 00 00 c5 00 00 00 "
              "01 00 00 00 20 a1 07 00 36 00 00 00 36 00 00 00 "  // 1.5 s, 54 bytes
              "00 00 00 80 01 00 00 00 15 05 00 36 00 00 00 26 "  // ERF, 38 bytes on the wire
              "00 02 00 00 00 09 00 00");
    EXPECT_EQ(bytes.size(), 24 + 16 + 54u);
}

}  // namespace
