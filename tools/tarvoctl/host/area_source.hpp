#pragma once

#include "area/check.hpp"
#include "area/records.hpp"
#include "common/unique_fd.hpp"
#include "host/site.hpp"
#include "shared/layout.hpp"

#include <chrono>
#include <memory>
#include <string>

namespace tarvoctl {

/// What a command does about the live area's lock.
enum class lock_use {
    always,  ///< takes it
    offered, ///< takes it, unless --no-lock is given
    none,    ///< reads without it
};

/// What stands for standard input or output where a file is named.
inline constexpr const char* standard_stream = "-";

/// Where a command reads the records: the live area, or a copy of one.
struct area_source {
    std::string file; ///< a copy, compressed by gzip(1) or not; empty: the live area
    std::chrono::milliseconds timeout{5000};
    lock_use lock = lock_use::always;

    bool is_live() const { return file.empty(); }
};

/// The records. The live area's lock is held only while they are copied. Without it they are read
/// until two readings are alike, or some have not been; the picture says which, and so does a line
/// on standard error. Throws failure, also where there is no area: none is ever made by looking.
picture read_picture(const area_source& source);

/// The same for those that report a picture that is not consistent in a way of their own.
picture look_at_records(const area_source& source);

/// An area copied. What is zero there, or was not read, takes no memory.
class area_copy {
  public:
    area_copy();

    shared_area_t& operator*() const { return *_area; }
    shared_area_t* operator->() const { return _area.get(); }

    /// As picture has it.
    bool consistent = true;

  private:
    struct release {
        void operator()(shared_area_t* area) const;
    };
    std::unique_ptr<shared_area_t, release> _area;
};

/// A whole area, with or without the lock as read_picture() does it.
area_copy read_area(const area_source& source);

/// The same of the uncompressed file of that path, without a lock: what others change meanwhile may
/// be read half before and half after. The flag `initialized` is read last.
area_copy read_area_file(const std::string& path);

/// Says on standard error where the live area is of another region than this machine's.
void remark_on_region(const dma_window& in_area);

/// Throws failure where this machine has no region, so that no program can make an area.
void require_region(const site& here);

/// Throws failure where an area's file is shorter than an area.
void require_whole(const unique_fd& file, const std::string& path);

/// Throws failure for a copy that cannot be changed where it is: one that is compressed, or a
/// stream.
void require_changeable(const std::string& path);

/// Throws failure for an area that no process has built, or one in use that says so.
void check_built(const shared_area_t& area, const std::string& path);

/// What check_area() holds the live area against.
check_options options_here(const site& here);

/// The same for any source. What the machine says goes for its live area only: a copy may come from
/// another one. `cma`: the copy is of a CMA region.
check_options options_for(const area_source& source, bool cma);

/// An area's file, live or a copy, mapped for writing. Throws failure when it cannot be opened, is
/// too short, or has no room for what is written; whether it is built is the caller's to ask.
class mapped_area {
  public:
    explicit mapped_area(const std::string& path);
    ~mapped_area();
    mapped_area(const mapped_area&) = delete;
    mapped_area& operator=(const mapped_area&) = delete;

    shared_area_t& area() const { return *_area; }
    /// Brings the pages in that hold something, so that nobody waits for them under the lock.
    void touch() const;

  private:
    shared_area_t* _area = nullptr;
};

} // namespace tarvoctl
