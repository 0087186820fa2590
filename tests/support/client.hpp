#pragma once

#include "process.hpp"
#include "quoted.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct dma_limits {
    int result;
    uint32_t start;
    uint32_t end;

    bool operator==(const dma_limits&) const = default;
};

struct found_chunk {
    std::optional<std::string> name; ///< nothing where the library returned null
    uint32_t dma;                    ///< 0xdeadbeef where the library did not write it

    bool operator==(const found_chunk&) const = default;
};

/// A program that uses the library, run by a test command by command. What goes wrong with the
/// program itself (it ends, hangs, does not know the command) is thrown with its standard error,
/// which fails the test.
class client {
  public:
    explicit client(process running) : _process(std::move(running)) {}

    /// Carries out one command of tarvo-client and returns its reply.
    std::string call(std::string_view command);

    /// The calls that nearly every test makes. Addresses in the client are plain numbers here.
    uint32_t alloc(std::string_view name, uint64_t size, std::string_view creator = "test");
    /// Allocates so many chunks of 4 KiB, whose names are `prefix` and a number from 0 up, and
    /// returns the DMA address of the last one.
    uint32_t fill(const std::string& prefix, int count);
    int free(std::string_view name);
    uint64_t map(std::string_view name, bool writable = true, uint64_t offset = 0,
                 uint64_t size = 0);
    int unmap(std::string_view name, uint64_t address, uint64_t size = 0);
    found_chunk find(uint32_t dma);
    uint64_t to_pa(uint32_t dma);
    uint32_t to_dma(uint64_t pa);
    dma_limits limits();
    int register_device(uint32_t domain, uint32_t bus, uint32_t devfn);
    int unregister_device(uint32_t domain, uint32_t bus, uint32_t devfn);
    /// All lines of a listing from begin to end: chunks, then devices.
    std::vector<std::string> dump();

    /// A call that may have to wait for another process.
    void send(std::string_view command);
    std::string reply();
    bool has_replied(std::chrono::milliseconds time = std::chrono::milliseconds(0));
    /// Returns once the program waits for a file lock, or a child of it.
    void wait_until_it_waits_for_a_lock(std::optional<pid_t> child = std::nullopt);

    /// Sends a command that has to end the program, and waits for that. A reply is thrown.
    ending dies(std::string_view command);
    ending kill(int signal);
    /// Ends the program as programs end, at the end of its input.
    ending finish();

    /// Its open descriptors, such as "3:/dev/mem:rw:cloexec", in ascending order.
    std::vector<std::string> descriptors();
    pid_t pid();
    /// All of its standard error so far.
    std::string error_text() const { return _process.error_text(); }
    /// What it has said there since this was last asked for, as without_lines() and
    /// without_signatures() have it.
    std::string new_text();

  private:
    int64_t number(const std::string& command);

    process _process;
    pid_t _pid = 0;
    size_t _reported = 0; ///< bytes of standard error that new_text() gave out
};

/// What is in `now` and was not in `before`, in the order of `now`.
std::vector<std::string> added(const std::vector<std::string>& before,
                               const std::vector<std::string>& now);

/// `text` with the line numbers of source "tarvo" as LINE, in assertions and trace records: those
/// lines are free to move. Those of other sources stay. Pointers in signatures are spelled as g++
/// spells them.
std::string without_lines(std::string_view text);

/// `text` with the signatures in assertions of the container as SIGNATURE: each compiler spells
/// those of templates in its own way.
std::string without_signatures(std::string_view text);
