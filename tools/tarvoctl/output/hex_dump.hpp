#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarvoctl {

/// Prints bytes as hexdump -C does: 16 a line, lines that repeat the one above as a single "*", and
/// the offset after the last byte at the end. `offset` is that of the first byte.
void print_hex_dump(std::span<const std::byte> bytes, uint64_t offset);

} // namespace tarvoctl
