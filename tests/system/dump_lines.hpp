#pragma once

#include "world_test.hpp"

#include <iomanip>
#include <sstream>

/// A chunk's line in a listing.
inline std::string chunk_line(int index, const std::string& name, const std::string& creator,
                              uint64_t pa, int64_t size) {
    std::ostringstream line;
    line << std::setw(3) << index << ' ' << std::left << std::setw(60) << name << ' '
         << std::setw(110) << creator << std::right << " 0x" << std::hex << std::setfill('0')
         << std::setw(12) << pa << ' ' << std::dec << std::setfill(' ') << std::setw(9) << size;
    return line.str();
}

/// The client's reply to a call that gives that line.
inline std::string reply_of(const std::string& line) {
    return '"' + line + '"';
}
