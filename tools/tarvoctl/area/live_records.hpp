#pragma once

#include "area/records.hpp"
#include "shared/layout.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace tarvoctl {

/// The records in use of an area that others change, as raw bytes: copied in one go while the lock
/// is held, made into a picture when it is free again. Any bytes are safe to copy.
class live_records {
  public:
    /// Room is made here, so that copying does not wait for memory.
    live_records();

    /// Copies what is on the lists. Bounded: a list that runs in circles or out of the array is
    /// left where it does so.
    void copy(const shared_area_t& area);

    picture to_picture() const;

  private:
    /// What a chunk's element holds before its devices.
    static constexpr std::size_t head_bytes = offsetof(dma_chunk_t, devs);

    struct chunk_copy {
        int index;
        unsigned char head[head_bytes];
        std::size_t first_ref; ///< in refs_; they end where those of the next chunk begin
    };
    struct device_copy {
        int index;
        iommu_dev_t device;
    };

    void copy_region(const chunk_list& chunks);
    void copy_chunk(int index, const dma_chunk_t& chunk);
    chunk_record record_of(std::size_t position) const;

    dma_window region_{};
    std::vector<chunk_copy> chunks_;
    std::vector<device_copy> devices_;
    std::vector<int> refs_;
    std::vector<std::string> damage_;
    bool all_chunks_ = true;
};

} // namespace tarvoctl
