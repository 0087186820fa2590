/* SPDX-License-Identifier: MIT */
#pragma once

/// @file tarvo.hpp
/// The library for C++20: header only, on top of the C calls of tarvo.h, whose conventions and
/// caveats hold here, too. Link with libtarvo as a C program does.
///
///     using namespace tarvo::literals;
///     auto ring = tarvo::allocate("rx_ring", 64_KiB, "my_driver");
///     if (!ring) {
///         std::fprintf(stderr, "%s\n", ring.error().message());
///         return 1;
///     }
///     auto memory = tarvo::map(*ring);            // unmapped where `memory` ends
///     give_to_device(ring->dma().value());
///     std::ranges::fill(memory->span(), std::byte{0});
///
///  1. Errors are values. Nothing throws, and nothing allocates: every call returns a
///     tarvo::result, which holds a value, or a tarvo::error with a code and a message.
///  2. Arguments for which the C call would end the process are errors here, found before the call.
///     What is left of that is said with each call: a driver that refuses a new chunk, and damaged
///     records.
///  3. A tarvo::chunk is a value, not an owner. The call that uses it makes sure, under the lock,
///     that the chunk's name still means this chunk: memory and DMA address always belong together.
///     Only where a C program made a name that ends in blanks beside the same name without them can
///     the two be taken for each other: avoid such names. And the chunk can still be freed by
///     others while it is mapped; agree on who frees.
///  4. Owners are move-only: tarvo::mapping, tarvo::read_only_mapping, tarvo::whole_region, and
///     tarvo::listing, *** which holds the lock of all processes while it lives ***.
///  5. Not for two threads at once; a child of fork() may use it beside its parent, but a
///     tarvo::listing is its parent's and of no use to it. For both see tarvo.h.
///  6. A call by name reads the list from its start, as the library does, and costs some
///     microseconds for every ten chunks: look a chunk up once, not for each access.

#if __cplusplus < 202002L
// Nothing else is read then: hundreds of errors would bury this one.
#error "tarvo.hpp is for C++20: compile with -std=c++20, or include tarvo.h alone"
#else

#include "tarvo.h"
#include "tarvo/allocation.hpp"
#include "tarvo/chunk.hpp"
#include "tarvo/device.hpp"
#include "tarvo/listing.hpp"
#include "tarvo/mapping.hpp"
#include "tarvo/region.hpp"
#include "tarvo/registry.hpp"
#include "tarvo/result.hpp"
#include "tarvo/units.hpp"

#endif
