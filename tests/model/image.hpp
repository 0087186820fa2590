#pragma once

#include "records.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace model {

/// The bytes that a shared area file has to hold.
class image {
  public:
    image();

    /// Brings the bytes up to date.
    void show(const shared_area& area);
    std::span<const uint8_t> bytes() const { return _bytes; }

    /// Looks for a difference in all that can have changed: the chunk elements that were ever used,
    /// the ends of both lists and all devices.
    std::optional<std::string> difference(std::span<const uint8_t> actual) const;
    /// Looks at every byte, which takes a thousand times as long.
    std::optional<std::string> difference_anywhere(std::span<const uint8_t> actual) const;

  private:
    void show_chunk(const chunk& one, int next, int prev);
    void show_refs(const chunk& one);
    void show_chunks(const shared_area& area);
    void show_devices(const shared_area& area);
    std::span<uint8_t> range(size_t start, size_t end);
    std::optional<std::string> difference_in(std::span<const uint8_t> actual, size_t start,
                                             size_t end) const;

    std::vector<uint8_t> _bytes;
    int _shown = 0; ///< chunk elements from here on are as they were built
};

/// Which field of the shared area a byte belongs to, for people.
std::string field_at(size_t offset);

} // namespace model
