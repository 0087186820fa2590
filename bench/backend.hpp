#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

/// One way to share named memory between the processes of a machine, as the benchmark uses it.
class backend {
  public:
    backend() = default;
    virtual ~backend() = default;
    backend(const backend&) = delete;
    backend& operator=(const backend&) = delete;

    /// Makes named memory of that many bytes, all zero.
    virtual void create(const std::string& name, size_t bytes) = 0;
    /// Looks up what another process may have made.
    virtual void find(const std::string& name, size_t bytes) = 0;
    virtual void remove(const std::string& name) = 0;
    /// Writes to the first byte of each page of it, through a mapping that lasts that long.
    virtual void touch(const std::string& name, size_t bytes) = 0;
    /// How large the files are in which it keeps what the processes share.
    virtual std::uintmax_t file_bytes() = 0;

    /// Further measurements of this backend, by name: each returns nanoseconds; the number says how
    /// often, or how large.
    virtual std::map<std::string, std::function<double(int)>> extra_works() { return {}; }
};

/// The backend that this program was built for. The first process sets up what all share.
std::unique_ptr<backend> make_backend();

/// Ends the program: a benchmark whose work fails has no result.
[[noreturn]] void fail(const std::string& reason);

/// Nanoseconds that `work` takes.
template <typename Work>
double time_of(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
        .count();
}
