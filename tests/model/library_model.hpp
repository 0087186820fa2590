#pragma once

#include "driver_model.hpp"
#include "records.hpp"
#include "world.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace model {

/// What all processes of the machine share.
struct machine_state {
    explicit machine_state(const world& chosen) : where(chosen), kernel(chosen) {}

    world where;
    shared_area area;
    driver kernel;
    std::map<uint64_t, uint8_t> pages; ///< what pages are filled with, by pa; else zero
    std::optional<int> lock_holder;    ///< number of a process
};

/// A mapping of a window of a chunk, which outlives the chunk.
struct mapping {
    uint64_t pa;
    uint64_t bytes;
    bool writable;
};

/// A call of the C library that is to fail, as `fail` of tarvo-client orders it.
struct refusal {
    std::string call;
    int error;
    uint64_t calls_left; ///< counts down to the call that fails
};

/// What a process holds of the machine's files.
struct holdings {
    bool has_standard_input = true;
    std::multiset<std::string> descriptors; ///< paths
    std::multiset<std::string> lost;        ///< those that nothing will close
    uint64_t area_bytes = 0;                ///< mapped
    uint64_t memory_bytes = 0;              ///< mapped, in whole pages
};

struct process_state {
    explicit process_state(int its_number) : number(its_number) {}

    int number;
    bool started = false;
    std::vector<refusal> refusals;
    /// Of the C library, made so far by this and earlier processes of its number.
    std::map<std::string, uint64_t> calls;
    holdings held;
    std::optional<int> chunk_cursor; ///< element
    std::optional<int> device_cursor;
    int whole_region_count = 0;
    bool has_whole_region = false;
    std::map<std::string, mapping> mappings; ///< by the names that steps give them
    std::string error_text;                  ///< what it has said since the last step
};

/// Thrown where a call ends the process.
struct process_end {
    int signal;
};

/// Printf-style text.
[[gnu::format(printf, 1, 2)]] std::string text_of(const char* format, ...);

/// How the address of the whole region's mapping is shown.
inline constexpr const char* whole_region_label = "whole_region";

inline constexpr uint64_t content_bytes = 70130716; ///< of the shared area

/// As %llx and %llu take it.
constexpr unsigned long long wide(uint64_t number) {
    return number;
}

/// Such as 0x1000.
std::string hexadecimal(uint64_t number);

/// The last words' place in the container when a walk comes to a cleared element.
inline constexpr const char* in_next = "./ArrayBackedList.hpp:32";

/// The whole library, as one process uses it: each operation step by step, written out anew where
/// the library has one function for several.
class library {
  public:
    library(machine_state& machine, process_state& process)
        : _machine(machine), _area(machine.area), _process(process) {}

    /// Names can be null pointers.
    using text = std::optional<std::string>;

    uint32_t alloc(const text& name, uint64_t size, const text& creator);
    int free(const text& name);

    /// Nothing: null.
    std::optional<mapping> map(const text& name, bool writable, uint64_t offset, uint64_t size);
    /// `va_text`: how the address is printed. Whether it is unmapped shows in what is held.
    int unmap(const text& name, uint64_t va, uint64_t size, const std::string& va_text);
    /// A name, or nothing for null, and what is stored if anything is.
    struct answer {
        text name;
        std::optional<uint32_t> chunk_dma;
    };
    answer find(uint32_t dma);

    enum class whole_region { null, fresh, same };
    whole_region map_all();
    void unmap_all();

    uint64_t dma_to_pa(uint32_t dma);
    uint32_t pa_to_dma(uint64_t pa);
    struct dma_range {
        uint32_t start;
        uint32_t end;
    };
    std::optional<dma_range> get_limits();

    int register_device(const device& wanted);
    int unregister_device(const device& wanted);
    int iommu_map(const device& one, uint32_t prot);
    int iommu_unmap(const device& one);

    bool dump_begin();
    std::optional<std::string> dump_next(uint64_t room);
    std::optional<std::string> dump_next_device(uint64_t room);
    int dump_end();

  private:
    /// Speaking and ending.
    void say(const std::string& words) { _process.error_text += words; }
    void perror(const char* words, int error);
    /// `place`: source and line, with the signature where the text gives it.
    void require(bool holds, const char* place, const char* expression);
    [[noreturn]] static void fault();
    static const std::string& read(const text& name);
    /// Counts a call of the C library. The errno with which it is to fail, or 0.
    int refused(const char* call);

    /// What it holds.
    void open_memory_and_area();
    void open(const char* path) { _process.held.descriptors.insert(path); }
    void map_memory(uint64_t bytes) { _process.held.memory_bytes += rounded_to_pages(bytes); }
    /// Returns 0 or the errno with which memory stays mapped.
    int unmap_memory(uint64_t bytes);

    /// Start-up and lock.
    std::optional<mapping> map_window(const chunk& whole, bool writable, uint64_t offset,
                                      uint64_t size);

    bool init();
    bool init_or_say();
    bool start_up();
    bool find_region();
    bool find_simulated_region();
    bool find_hardware_region();
    bool read_region_line(const listing& seen);
    bool open_hardware_files();
    bool size_area();
    bool map_area();
    bool say_unmappable_area();
    bool open_lock_file();
    bool attach_area();
    bool has_room();
    void build_area();
    void clean_up();
    /// False where it cannot be taken.
    bool lock();
    /// What another process holds stays locked.
    void unlock();
    bool is_high() const;

    /// Chunks.
    chunk* find_by_name(const std::string& name);
    uint32_t reuse(chunk& existing);
    uint32_t make_chunk(const std::string& name, uint32_t rounded, const std::string& creator);
    bool place_in_region(chunk& fresh);
    bool place_in_cma(chunk& fresh);
    uint32_t finish(const chunk& fresh);
    void zero_memory(const chunk& fresh);
    /// 0 or the errno with which the memory could not be had.
    int zero_or_fail(const chunk& fresh);
    bool chunk_desc_check(const chunk& one);
    void insert(chunk& fresh, size_t position);
    [[noreturn]] void roll_back(int element);
    uint32_t discard(const chunk& one);

    /// Contiguous memory of the kernel's.
    uint64_t get_cma_allocation(const std::string& name, uint32_t size);
    bool ask_for_cma(const std::string& name, uint32_t size);
    uint64_t look_up_cma(const std::string& name, uint32_t size, const listing& shown);
    int opened(const char* file, int error);
    /// 0 or an errno.
    int open_driver_to_write(const char* file);
    int open_driver_to_read(listing& seen);
    void close_driver(const request* asked = nullptr);
    int free_cma_allocation(const std::string& name, uint32_t size);

    /// Requests to the IOMMU.
    struct iommu_mapping {
        uint64_t start_pa;
        uint64_t end_pa;
        uint32_t start_dma;
    };
    std::string formatted(const std::string& printed);
    std::string device_name(const device& one);
    static request request_for(const char* op, const device& to, const iommu_mapping& range);
    iommu_mapping checked_mapping(uint64_t start_pa, uint64_t end_pa, uint32_t start_dma,
                                  uint32_t end_dma);
    iommu_mapping whole_region_range(const char* place);
    int iommu_act(const char* op, const device& to, uint32_t prot, const iommu_mapping& range);
    int send_unbuffered(const char* op, const device& to, uint32_t prot,
                        const iommu_mapping& range);
    int write_request(const char* op, const device& to, uint32_t prot, const iommu_mapping& range);
    int map_unmap_chunk(const char* op, const chunk& one, const device& to);
    bool is_gone() const;
    int map_chunk_all_devs(chunk& one);
    int unmap_chunk_all_devs(chunk& one);
    bool map_for(chunk& one, device& to);
    bool unmap_from(const chunk& one, int dev);
    int map_chunks_to_dev(device& to);
    int unmap_dev_all_chunks(device& from);
    static void add_dev_to_chunk(chunk& one, int dev);
    static void remove_ref(chunk& one, size_t position);
    device* find_device(const device& wanted);

    machine_state& _machine;
    shared_area& _area;
    process_state& _process;
    bool _has_mapped_area = false;
    int _errno = 0;
};

} // namespace model
