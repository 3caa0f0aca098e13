// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Answers of the SA, asked for and not, of any content and any reported size.
//
// Byte 0: modes and level. Then steps, each a kind (1) and its operands:
//   0  a client asks: host (1), how (1)          1  ticks (1) pass
//   2  an answer is built: see build()           3  a datagram: port (1), size (2), its bytes
//   4  a port's (1) link goes down or comes up (1)
#include "fabric/rmpp.h"
#include "tests/fuzz/world.h"

namespace {

/* Which parts of an answer are the input's own, instead of what a true SA would say. */
enum Odd : std::uint8_t {
    odd_header = 1,
    odd_segments = 2,
    odd_reported_size = 4,
    odd_length = 8,
    odd_port = 16,
    odd_records = 32,
    odd_sa_header = 64,
};

/* Answers of more records and of more segments only take longer. */
constexpr int most_records = 31;
constexpr std::size_t shortest_segment = 8;

int port_of(std::uint8_t byte) {
    return 1 + (byte & 1);
}

void deliver(fuzz::World& world, int port, fabric::Bytes mad) {
    fabric::Packet packet;
    packet.slid = 1;
    packet.src_qp = packet.dest_qp = fabric::gsi_qp;
    packet.qkey = fabric::gsi_qkey;
    packet.payload = std::move(mad);
    world.kernel().schedule(host::Context::gsi, 0,
                            [&world, port, packet] { world.fabric().gsi().receive(port, packet); });
    world.kernel().settle();
}

fabric::Bytes header(fuzz::Input& input, std::uint8_t odd) {
    fabric::MadHeader header;
    header.transaction = input.take<std::uint8_t>();
    header.management_class = fabric::sa_class;
    header.class_version = fabric::sa_class_version;
    header.method = fabric::method_get_multi_resp;
    header.attribute = fabric::attribute_path_record;
    if (odd & odd_header) {
        header.base_version = input.take<std::uint8_t>();
        header.management_class = input.take<std::uint8_t>();
        header.class_version = input.take<std::uint8_t>();
        header.method = input.take<std::uint8_t>();
        header.status = input.take<std::uint16_t>();
        header.attribute = input.take<std::uint16_t>();
    }
    fabric::Bytes mad(fabric::sa_data_offset);
    fabric::encode(header, mad);
    mad[fabric::sa_offset + 9] = fabric::PathRecord::wire_size / 8;
    if (odd & odd_sa_header)
        std::ranges::copy(input.bytes(fabric::sa_header_size), mad.begin() + fabric::sa_offset);
    return mad;
}

/* A true path to a host, or 64 bytes of the input. */
fabric::Bytes record(fuzz::World& world, fuzz::Input& input, std::uint8_t odd) {
    fabric::Bytes bytes(fabric::PathRecord::wire_size);
    if (odd & odd_records) {
        std::ranges::copy(input.bytes(bytes.size()), bytes.begin());
        return bytes;
    }
    const auto ends = input.take<std::uint8_t>();
    const auto peer =
        world.fabric().peers().station(fuzz::World::ip(static_cast<std::uint8_t>(2 + ends % 3)));
    fabric::PathRecord path;
    path.dgid = peer.gid;
    path.dlid = peer.lid;
    path.sgid = world.fabric().adapter().port(port_of(ends >> 4)).gid;
    path.pkey = 0xFFFF;
    fabric::encode(path, bytes);
    return bytes;
}

/* What is odd (1), the transaction (1), then what the oddities ask for: header (8), SA header (20),
 * number of records (1) and the records, whose segments hold so many bytes (1) and 8, of which the
 * last is cut to so many (1), and which are reported (4) to have that size. */
void build(fuzz::World& world, fuzz::Input& input) {
    const auto odd = input.take<std::uint8_t>();
    const fabric::Bytes headers = header(input, odd);
    fabric::Bytes data;
    for (int left = input.take<std::uint8_t>() & most_records; left > 0; left--) {
        const fabric::Bytes next = record(world, input, odd);
        data.insert(data.end(), next.begin(), next.end());
    }
    const std::size_t piece = odd & odd_segments ? shortest_segment + input.take<std::uint8_t>()
                                                 : fabric::PathRecord::wire_size;
    const std::size_t length = odd & odd_length ? input.take<std::uint8_t>() : ~0u;
    if (odd & odd_reported_size)
        world.fabric().gsi().report_size_next(input.take<std::int32_t>());
    const int port = odd & odd_port ? 2 : 1;
    if ((odd & odd_segments) == 0) {
        fabric::Bytes mad = headers;
        mad.insert(mad.end(), data.begin(), data.end());
        mad.resize(std::min(mad.size(), length));
        deliver(world, port, std::move(mad));
        return;
    }
    const fabric::RmppSender sender(headers, data, piece);
    for (std::uint32_t number = 1; number <= sender.segments(); number++) {
        fabric::Bytes mad = sender.segment(number);
        if (number == sender.segments())
            mad.resize(std::min(mad.size(), length));
        deliver(world, port, std::move(mad));
    }
}

void step(fuzz::World& world, fuzz::Input& input) {
    switch (input.take<std::uint8_t>() % 5) {
        case 0: {
            const std::uint32_t address = fuzz::World::ip(input.take<std::uint8_t>());
            world.ask(address, input.take<std::uint8_t>());
            break;
        }
        case 1:
            world.kernel().advance(input.take<std::uint8_t>());
            break;
        case 2:
            build(world, input);
            break;
        case 3: {
            const int port = port_of(input.take<std::uint8_t>());
            deliver(world, port, input.bytes(input.take<std::uint16_t>()));
            break;
        }
        default: {
            const int port = port_of(input.take<std::uint8_t>());
            world.fabric().set_link(port, (input.take<std::uint8_t>() & 1) != 0);
            world.kernel().settle();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    fuzz::World world(input);
    world.fabric().sa().faults().drop_all();
    while (!input.at_end())
        step(world, input);
    world.inspect(fuzz::World::ip(2));
    return 0;
}
