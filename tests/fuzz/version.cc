// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The version record of a module with any name, version and tag, and reads of its file anywhere.
//
// Byte 0: which of the three are null (bits 0 to 2). Then the three, each ended by a byte 0. The
// rest are reads, each a size (2) and an offset (8).
#include <algorithm>
#include <vector>

#include "host/kernel.h"
#include "host/services.h"
#include "tarv/qversion.h"
#include "tests/fuzz/input.h"

namespace {

/* What makes a directory below the modules' own; a module of another name has no file. */
bool is_file_name(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos;
}

/* Asks the handler itself, since an open file asks it only for what comes next. */
void read_anywhere(const std::string& name, fuzz::Input& input) {
    const std::string whole = host::ProcFile("quorvane/" + name + "/version").read(PAGE_SIZE);
    fuzz::require(
        whole.substr(0, PAGE_SIZE - 1) == std::string(module_banner).substr(0, PAGE_SIZE - 1),
        "the file is not the line");
    while (!input.at_end()) {
        const auto size = input.take<std::uint16_t>() % PAGE_SIZE;
        const long offset = input.take<std::int64_t>() & ~(1l << 63);
        std::vector<char> page(PAGE_SIZE);
        char* start = nullptr;
        int eof = 0;
        const int result =
            version_read_proc(page.data(), &start, offset, static_cast<int>(size), &eof, nullptr);
        const std::size_t from = std::min(static_cast<std::size_t>(offset), whole.size());
        fuzz::require(
            std::string(start, static_cast<std::size_t>(result)) == whole.substr(from, size),
            "a part is not one of the whole");
    }
}

void try_version(const char* name, const char* version, const char* tag, fuzz::Input& input) {
    const bool made = module_version_init(name, version, tag) == 0;
    fuzz::require(made || module_banner == nullptr, "a line without a file");
    fuzz::require(made || !name || !is_file_name(name), "a good name has no file");
    if (made && name && is_file_name(name))
        read_anywhere(name, input);
    module_version_exit(made && !name ? "<NULL>" : name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const auto nulls = input.take<std::uint8_t>();
    const std::string name = input.text_until(0), version = input.text_until(0),
                      tag = input.text_until(0);
    const host::Kernel kernel;
    try_version(nulls & 1 ? nullptr : name.c_str(), nulls & 2 ? nullptr : version.c_str(),
                nulls & 4 ? nullptr : tag.c_str(), input);
    fuzz::require(kernel.remains().empty(), "something is left behind");
    return 0;
}
