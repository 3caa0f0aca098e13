// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The kernel's own formatting. It differs from the C library's in what it leaves out and in %p.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace host {

/// Formats into `size` bytes, NUL included, and returns the length that the whole text has.
///
/// Conversions: d i u x X o c s p %, with flags "-+ #0", width and precision (also '*') and the
/// lengths hh h l ll L z Z t. %p is 16 lower-case hexadecimal digits without 0x; %s of a null
/// pointer is "<NULL>". A conversion that the kernel does not have is printed as it stands.
std::size_t format_text(char* buffer, std::size_t size, const char* format, va_list arguments);

}  // namespace host
