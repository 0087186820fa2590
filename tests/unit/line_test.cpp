// Lines of the listing against what snprintf makes of the same values, for buffers of every size.

#include "mapping/line.hpp"

#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace line_test {

namespace {

struct values {
    int number;
    std::string left;
    std::string right;
    uint64_t address;
    int size;
};

/// The buffer afterwards, with what lies before and after it, and whether the line is whole.
struct written {
    std::string bytes;
    bool whole;

    bool operator==(const written&) const = default;
};

constexpr size_t margin = 4;

template <typename Print>
written print_into(size_t bytes, Print print) {
    std::string room(margin + bytes + margin, '#');
    const bool whole = print(room.data() + margin, bytes);
    return {room, whole};
}

written by_snprintf(size_t bytes, const values& v) {
    return print_into(bytes, [&v](char* buffer, size_t n) {
        const int length =
            std::snprintf(buffer, n, "%3d %-*s %-*s 0x%012llx %9d", v.number, 6, v.left.c_str(), 11,
                          v.right.c_str(), static_cast<unsigned long long>(v.address), v.size);
        return static_cast<size_t>(length) < n;
    });
}

written by_line(size_t bytes, const values& v) {
    return print_into(bytes, [&v](char* buffer, size_t n) {
        line text(buffer, n);
        text.decimal(v.number, 3);
        text.text(" ");
        text.text(v.left.c_str(), 6);
        text.text(" ");
        text.text(v.right.c_str(), 11);
        text.text(" 0x");
        text.hexadecimal(v.address, 12);
        text.text(" ");
        text.decimal(v.size, 9);
        return text.finish();
    });
}

TEST(a_line, IsThatOfSnprintfInABufferOfAnySize) {
    const std::vector<values> cases{
        {0, "", "", 0, 0},
        {7, "rx", "driver", 0x80001000, 4096},
        {16383, "exactl", "exactly 11.", 0xabcdef012345, -4096},
        {-1, "too long for it", "too long for its columns", 0x123456789abcdef0, 999999999},
        {std::numeric_limits<int>::min(), "%s%n", "50%", ~uint64_t{0},
         std::numeric_limits<int>::min()},
        {std::numeric_limits<int>::max(), "größe", "\x01\xff", 1, std::numeric_limits<int>::max()},
    };
    for (const values& v : cases) {
        for (size_t bytes = 0; bytes <= 100; bytes++) {
            const written seen = by_line(bytes, v);
            EXPECT_EQ(seen, by_snprintf(bytes, v)) << v.left << " in " << bytes << " bytes";
        }
    }
}

TEST(a_line, OfNothingIsWholeInOneByte) {
    char buffer[2] = {'#', '#'};
    EXPECT_TRUE(line(buffer, 1).finish());
    EXPECT_EQ(std::string(buffer, 2), (std::string{'\0', '#'}));
}

TEST(a_line, TouchesNoBufferThatHasNoBytes) {
    line text(nullptr, 0);
    text.text("rx_ring", 60);
    EXPECT_FALSE(text.finish());
}

} // namespace

} // namespace line_test
