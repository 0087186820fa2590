#pragma once

#include "finding.hpp"

#include <cstddef>
#include <cstdint>
#include <fmt/format.h>
#include <string>
#include <string_view>

namespace tarvoctl {

/// A rule of the area: what findings call it, how bad a breach is, and what helps where repair does
/// not.
struct rule {
    std::string_view name;
    finding_class cls;
    remedy out = remedy::remove_file;
};

/// With the text of a finding, which takes these values.
template <typename... Values>
struct rule_with : rule {
    fmt::format_string<const Values&...> text;
};

/// All rules. A finding is named after the list that the rule was applied to as well: "ref-cycle".
namespace rules {

using enum finding_class;
using text = std::string_view;

// The area as a whole.
inline constexpr rule_with<> not_built{{"not-built", note},
                                       "not built yet: the first process that starts does it"};
inline constexpr rule_with<> half_built{
    {"half-built", note},
    "the process that built the area did not finish: the next one that starts builds it anew"};
inline constexpr rule_with<> built_flag_lost{
    {"built-flag-lost", broken},
    "initialized is 0, yet there are chunks or devices: the next process that starts builds the "
    "area anew and loses them"};
inline constexpr rule_with<std::string, std::string> region_empty{
    {"region-empty", broken}, "the region begins at {} and ends at {}"};
inline constexpr rule_with<std::string, std::string, std::string, std::string> region_differs{
    {"region-differs", broken},
    "the area is that of {} from {}, the machine's region has {} from {}"};

// Every list.
inline constexpr rule_with<int32_t, int32_t, int32_t> end_out_of_range{
    {"end-out-of-range", broken}, "head is {} and tail is {}; both must be -1 or 0 to {}"};
inline constexpr rule_with<int32_t, int32_t> one_end_only{
    {"one-end-only", broken}, "head is {} and tail is {}: a list has both ends or none"};
inline constexpr rule_with<int32_t, int32_t> link_out_of_range{
    {"link-out-of-range", broken}, "next is {}: the list cannot be followed to its tail {}"};
inline constexpr rule_with<size_t, int32_t> cycle{
    {"cycle", broken},
    "the walk comes back to this element after {} elements and never reaches the tail {}"};
inline constexpr rule_with<> listed_not_allocated{
    {"listed-not-allocated", broken},
    "on the list but not marked allocated: every walk over it ends its process"};
inline constexpr rule_with<int32_t, int32_t> back_link_wrong{
    {"back-link-wrong", broken}, "prev is {}, but the list comes here from {}"};
inline constexpr rule_with<text, int32_t, text, int32_t> circle_open{
    {"circle-open", broken}, "{} is {} instead of the {} {}"};
inline constexpr rule_with<int32_t> free_link_out_of_range{
    {"free-link-out-of-range", broken}, "the free chain goes on at {}, which is not an element"};
inline constexpr rule_with<size_t> free_cycle{
    {"free-cycle", broken}, "the free chain comes back to this element after {} elements"};
inline constexpr rule_with<> free_and_listed{
    {"free-and-listed", broken},
    "on the list and on the free chain: it would be handed out while in use"};
inline constexpr rule_with<> free_but_allocated{
    {"free-but-allocated", broken},
    "on the free chain but marked allocated: taking it ends the process"};
inline constexpr rule_with<> allocated_on_no_list{
    {"allocated-on-no-list", leaked},
    "marked allocated, but the walk over the list does not come here"};
inline constexpr rule_with<> free_on_no_chain{
    {"free-on-no-chain", leaked},
    "not allocated, and the free chain does not come here: it is never used again"};
inline constexpr rule_with<> free_not_zero{
    {"free-not-zero", tolerated}, "free but not zero: whoever takes it finds what is left there"};
inline constexpr rule_with<text, uint8_t> flag_value{{"flag-value", broken},
                                                     "{} is {}; it must be 0 or 1"};
inline constexpr rule_with<text> padding_not_zero{{"padding-not-zero", tolerated}, "{} not zero"};

// Chunks.
inline constexpr rule_with<text, text> no_sentinels{{"no-sentinels", broken},
                                                    "no chunk is listed, not even {} and {}"};
inline constexpr rule_with<text> head_sentinel{{"head-sentinel", broken},
                                               "the first chunk is not {} of size 0"};
inline constexpr rule_with<text> tail_sentinel{{"tail-sentinel", broken},
                                               "the last chunk is not {} of size 0"};
inline constexpr rule_with<> sentinel_devices{
    {"sentinel-devices", tolerated},
    "a sentinel is mapped for no device, yet its list of devices is not zero"};
inline constexpr rule_with<uint32_t> free_with_size{
    {"free-with-size", broken},
    "free, yet its size is {}: the allocation that takes it believes it to be a chunk that exists"};
inline constexpr rule_with<> name_not_terminated{{"name-not-terminated", broken},
                                                 "the name fills its field without a terminator"};
inline constexpr rule_with<> name_empty{{"name-empty", broken},
                                        "no name: it can be neither found nor freed"};
inline constexpr rule_with<text, int> name_twice{
    {"name-twice", tolerated},
    "called \"{}\" like chunk {}, which is the one that calls by name find"};
inline constexpr rule_with<> creator_not_terminated{
    {"creator-not-terminated", broken, remedy::free_chunk},
    "the creator fills its field without a terminator"};
inline constexpr rule_with<> creator_empty{{"creator-empty", broken, remedy::free_chunk},
                                           "nobody is named as its creator"};
inline constexpr rule_with<> size_zero{{"size-zero", broken, remedy::free_chunk},
                                       "size is 0: it holds no memory, yet has an address"};
inline constexpr rule_with<std::string, std::string> size_not_pages{
    {"size-not-pages", broken, remedy::free_chunk}, "size {} is not whole pages of {}"};
inline constexpr rule_with<std::string, std::string> address_not_page{
    {"address-not-page", tolerated}, "begins at {}, within a page of {}"};
inline constexpr rule_with<std::string, std::string, std::string> outside_region{
    {"outside-region", broken}, "{} from {} does not lie in the region {}: the library refuses it"};
inline constexpr rule_with<std::string, std::string> order{
    {"order", broken}, "begins at {}, before its predecessor at {}"};
inline constexpr const char* overlap_text = "begins at {}, but chunk {} '{}' reaches to {}";
inline constexpr rule_with<std::string, int, text, std::string> overlap{
    {"overlap", broken, remedy::free_chunk}, overlap_text};
inline constexpr rule_with<std::string, int, text, std::string> overlap_under_cma{
    {"overlap-under-cma", tolerated}, overlap_text};
inline constexpr rule_with<std::string> misses_device{
    {"misses-device", note},
    "not mapped for {}, which is online; registering that device again maps it"};

// Devices and references to them.
inline constexpr rule_with<std::string> address_twice{
    {"address-twice", broken, remedy::unregister_device},
    "the same domain, bus and devfn as {}, which is the one that calls find"};
inline constexpr rule_with<uint8_t> online_value{{"online-value", broken},
                                                 "online is {}; it must be 0 or 1"};
inline constexpr rule_with<int32_t, int> device_out_of_range{{"device-out-of-range", broken},
                                                             "names device {}; there are 0 to {}"};
inline constexpr rule_with<size_t> device_not_registered{
    {"device-not-registered", tolerated},
    "device {} is not registered: left over from one that was offline when it was forgotten; the "
    "next device with that number is taken to be mapped already"};
inline constexpr rule_with<std::string> device_twice{
    {"device-twice", broken}, "a second reference to {}: it would be unmapped twice"};

} // namespace rules

} // namespace tarvoctl
