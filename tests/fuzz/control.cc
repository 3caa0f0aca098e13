// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What is written to the control file, and reads of it in between.
//
// Byte 0: modes and level. Then writes, each ended by FF; a write that begins with FE is a read
// instead: of that many bytes (2) at that offset (4), where an offset of all ones continues the
// last one; one that begins with FD asks for an address (1) in that way (1); one that begins with
// FC lets ticks (1) pass.
#include "tests/fuzz/world.h"

namespace {

constexpr char control_path[] = "quorvane/tarv/control";
constexpr std::uint8_t end_of_write = 0xFF;
constexpr std::uint32_t go_on = ~0u;

void read_table(host::ProcFile& file, fuzz::Input operands) {
    const auto size = operands.take<std::uint16_t>();
    const auto offset = operands.take<std::uint32_t>();
    const std::string text = offset == go_on ? file.read(size) : file.read_at(size, offset);
    fuzz::require(text.size() <= size, "more was read than asked for");
}

void act(fuzz::World& world, host::ProcFile& file, const std::string& text) {
    fuzz::Input operands(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    const std::uint8_t kind = text.empty() ? 0 : static_cast<std::uint8_t>(text[0]);
    if (kind >= 0xFC)
        operands.take<std::uint8_t>();
    if (kind == 0xFE) {
        read_table(file, operands);
    } else if (kind == 0xFD) {
        const std::uint32_t address = fuzz::World::ip(operands.take<std::uint8_t>());
        world.ask(address, operands.take<std::uint8_t>());
    } else if (kind == 0xFC) {
        world.kernel().advance(operands.take<std::uint8_t>());
    } else {
        fuzz::require(file.write(text) == static_cast<long>(text.size()),
                      "a write was not taken whole");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    fuzz::World world(input);
    {
        host::ProcFile file(control_path);
        while (!input.at_end())
            act(world, file, input.text_until(end_of_write));
    }
    world.inspect(fuzz::World::ip(2));
    return 0;
}
