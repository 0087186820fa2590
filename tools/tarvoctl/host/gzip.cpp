#include "host/gzip.hpp"

#include "common/failure.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fmt/format.h>
#include <new>
#include <unistd.h>
#include <utility>
#define ZLIB_CONST
#include <zlib.h>

namespace tarvoctl {

namespace {

gzFile handle_of(void* file) {
    return static_cast<gzFile>(file);
}

std::string zlib_text(int error) {
    switch (error) {
    case Z_ERRNO:
        return error_text(errno);
    case Z_BUF_ERROR:
        return "it is compressed, and cut short";
    default:
        return "it is compressed, and damaged";
    }
}

} // namespace

std::string gzipped(std::span<const char> bytes) {
    constexpr int largest_window_in_gzip_form = 15 + 16;
    constexpr int usual_memory = 8;
    z_stream stream{};
    if (::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, largest_window_in_gzip_form,
                       usual_memory, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc{};
    }
    stream.next_in = reinterpret_cast<const Bytef*>(bytes.data());
    stream.avail_in = static_cast<uInt>(bytes.size());
    std::string made;
    std::array<char, 65536> buffer{};
    for (int state = Z_OK; state != Z_STREAM_END;) {
        stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
        stream.avail_out = buffer.size();
        state = ::deflate(&stream, Z_FINISH);
        made.append(buffer.data(), buffer.size() - stream.avail_out);
    }
    ::deflateEnd(&stream);
    return made;
}

bool is_gzipped(const unique_fd& file) {
    constexpr std::array<unsigned char, 2> magic{0x1f, 0x8b};
    std::array<unsigned char, 2> found{};
    const ssize_t count = ::pread(file.get(), found.data(), found.size(), 0);
    return count == static_cast<ssize_t>(found.size()) && found == magic;
}

void gzip_reader::closer::operator()(void* file) const {
    ::gzclose(handle_of(file));
}

gzip_reader::gzip_reader(unique_fd file, std::string name) : _name{std::move(name)} {
    _file.reset(::gzdopen(file.get(), "rb"));
    if (!_file) {
        throw std::bad_alloc{};
    }
    file.release();
}

size_t gzip_reader::read(std::span<char> to) {
    size_t done = 0;
    while (done < to.size()) {
        const size_t wanted = std::min<size_t>(to.size() - done, INT_MAX);
        const int count =
            ::gzread(handle_of(_file.get()), to.data() + done, static_cast<unsigned>(wanted));
        int error = Z_OK;
        ::gzerror(handle_of(_file.get()), &error);
        // A file that is cut short gives what there is, and says so besides.
        if (count < 0 || error == Z_BUF_ERROR) {
            throw failure{error == Z_ERRNO ? exit_status::unreadable : exit_status::damaged,
                          fmt::format("cannot read {}: {}", _name, zlib_text(error))};
        }
        if (count == 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return done;
}

} // namespace tarvoctl
