#pragma once

#include "sandbox.hpp"
#include "texts.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// What a test compares: each of these says in one value what happened.

using texts = std::vector<std::string>;

/// The reply to a command and, after a newline, what it added to standard error, with lines and
/// signatures as without_lines() and without_signatures() leave them.
std::string outcome(client& user, std::string_view command);

/// The same of a command that has to end the program: how it ended, and its last words.
std::string fatal_outcome(client& user, std::string_view command);

/// The chunks between the sentinels, in list order, as NAME:FIRST+COUNT in pages from the region's
/// start: "rx_ring:0+1 tx_ring:1+4".
std::string layout(const sandbox& machine);

/// What is wrong with the machine between two calls: breaches of the area, or a lock still held.
texts troubles(const sandbox& machine, area_allowance allowed = {});

/// The place of the first byte that differs, in words; empty when the two are the same.
std::string first_difference(std::span<const uint8_t> actual, std::span<const uint8_t> expected);

/// The process's whole region, mapped into it, for writing to and looking at any page of it.
class mapped_region {
  public:
    explicit mapped_region(client& user);

    void fill(uint64_t first_page, uint64_t page_count, uint8_t byte);
    bool filled(uint64_t first_page, uint64_t page_count, uint8_t byte);

  private:
    std::string place(uint64_t first_page, uint64_t page_count, uint8_t byte) const;

    client& _user;
    std::string _address;
};

/// Last words that many tests expect: the container's when it meets a cleared element, as the
/// undoing of an allocation does, and that of a translation.
std::string element_not_in_use();
std::string not_in_the_region();

inline constexpr const char* size_mismatch =
    "tarvo: find_chunk_desc() size mismatch, see tarvo\n\n";
