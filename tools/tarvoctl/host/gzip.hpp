#pragma once

#include "common/unique_fd.hpp"

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace tarvoctl {

/// In the form of gzip(1): zcat gives the bytes back.
std::string gzipped(std::span<const char> bytes);

/// Whether a file begins as those of gzip(1) do.
bool is_gzipped(const unique_fd& file);

/// Reads a file or pipe from where it is, compressed by gzip(1) or not. Never more is inflated than
/// is asked for.
class gzip_reader {
  public:
    /// `name` is what failures call it.
    gzip_reader(unique_fd file, std::string name);

    /// Returns how many bytes were read: fewer than there is room for only at the end. Throws
    /// failure.
    size_t read(std::span<char> to);

  private:
    struct closer {
        void operator()(void* file) const;
    };

    std::string _name;
    std::unique_ptr<void, closer> _file; ///< zlib's handle
};

} // namespace tarvoctl
