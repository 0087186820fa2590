// How fast the work can be done at all on these bytes: each operation written out for itself, with
// nothing traced, nothing started and nothing checked but what its result depends on. The layout
// and the lock are the library's, as other processes rely on them.

#include "backend.hpp"
#include "shared/layout.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <numeric>
#include <sys/file.h>
#include <sys/mman.h>

namespace {

constexpr uint32_t page = 4096; // bytes
constexpr size_t lead = 24;     // records that are fetched ahead

int open_or_fail(const char* path, int flags) {
    const int file = open(path, flags | O_CLOEXEC);
    if (file < 0) {
        fail(std::string("the floor finds no ") + path);
    }
    return file;
}

/// The lock for a scope.
class locked {
  public:
    explicit locked(int file) : _file(file) { flock(file, LOCK_EX); }
    ~locked() { flock(_file, LOCK_UN); }
    locked(const locked&) = delete;
    locked& operator=(const locked&) = delete;

  private:
    int _file;
};

/// The last eight bytes of a name, and of the names that it is compared with.
struct name_end {
    size_t at;
    uint64_t bytes = 0;
    uint64_t mask = ~uint64_t{0};

    explicit name_end(const std::string& name)
        : at(std::max<size_t>(name.size() + 1, sizeof bytes) - sizeof bytes) {
        const size_t count = std::min(name.size() + 1, sizeof bytes);
        std::memcpy(&bytes, name.c_str() + at, count);
        mask >>= 8 * (sizeof bytes - count);
    }

    bool ends(const dma_chunk_t& chunk) const {
        uint64_t end = 0;
        std::memcpy(&end, chunk.name + at, sizeof end);
        return (end & mask) == bytes;
    }
};

class floor_backend : public backend {
  public:
    floor_backend() {
        void* area =
            mmap(nullptr, sizeof(shared_area_t), PROT_READ | PROT_WRITE, MAP_SHARED, _area_file, 0);
        if (area == MAP_FAILED) {
            fail("the floor cannot map the area");
        }
        madvise(area, sizeof(shared_area_t), MADV_HUGEPAGE);
        _chunks = &static_cast<shared_area_t*>(area)->chunks;
        // To begin with, the order of a list that was only filled.
        std::iota(_order.begin(), _order.end(), static_cast<element>(last + 1));
        std::fill(_order.begin() + chunk_capacity - 2, _order.end(), last);
    }

    void create(const std::string& name, size_t bytes) override {
        uint64_t pa = 0;
        {
            const locked lock(_lock_file);
            pa = make(name, static_cast<uint32_t>(bytes));
        }
        void* memory = map(pa, bytes);
        std::memset(memory, 0, bytes);
        munmap(memory, bytes);
    }

    void find(const std::string& name, size_t /*bytes*/) override {
        const locked lock(_lock_file);
        _result = found(name)->pa;
    }

    void remove(const std::string& name) override {
        const locked lock(_lock_file);
        take_off(found(name));
    }

    void touch(const std::string& name, size_t bytes) override {
        volatile char* memory = nullptr;
        {
            const locked lock(_lock_file);
            memory = static_cast<volatile char*>(map(found(name)->pa, bytes));
        }
        for (size_t i = 0; i < bytes; i += page) {
            memory[i] = 1;
        }
        const locked lock(_lock_file);
        munmap(const_cast<char*>(memory), found(name)->size);
    }

    std::uintmax_t file_bytes() override { return std::filesystem::file_size(area_path); }

    std::map<std::string, std::function<double(int)>> extra_works() override {
        return {{"locate", [this](int number) { return locate(number); }}};
    }

  private:
    using element = uint16_t; // number of a record

    static constexpr const char* area_path = "/var/tmp/tarvo_lib";
    static constexpr element first = 0; // the sentinels' places
    static constexpr element last = 1;

    void* map(uint64_t pa, size_t bytes) const {
        void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, _memory_file,
                            static_cast<off_t>(pa));
        if (memory == MAP_FAILED) {
            fail("the floor cannot map memory");
        }
        return memory;
    }

    /// Visits the list from the lowest chunk on, up to the one at which `visit` (chunk, its number
    /// in the order) is true; null when it is at none. The order is that of the last visit. Each
    /// link is compared with it, and where they differ all begins again.
    template <typename Visit>
    dma_chunk_t* walk(Visit visit) {
        while (true) {
            dma_chunk_t* const records = _chunks->_arr;
            size_t i = records[first].next == _order[0] ? 0 : _count + 1;
            for (; i < _count; ++i) {
                dma_chunk_t& chunk = records[_order[i]];
                __builtin_prefetch(&records[_order[i + lead]]);
                if (visit(chunk, i)) {
                    _met = i;
                    return &chunk;
                }
                if (chunk.next != _order[i + 1]) {
                    break;
                }
            }
            if (i == _count) {
                return nullptr;
            }
            learn_order();
        }
    }

    /// The links of the records in use are read in the order of the array first: no read waits for
    /// another one.
    void learn_order() {
        size_t read = 0;
        for (; read < chunk_capacity && _chunks->_arr[read].allocated; ++read) {
            _next[read] = static_cast<element>(_chunks->_arr[read].next);
        }
        const auto after = [&](element at) {
            return at < read ? _next[at] : static_cast<element>(_chunks->_arr[at].next);
        };
        _count = 0;
        for (element at = after(first); at != last; at = after(at)) {
            _order[_count++] = at;
        }
        std::fill_n(&_order[_count], lead, last);
    }

    dma_chunk_t* found(const std::string& name) {
        const name_end end(name);
        return walk([&](const dma_chunk_t& chunk, size_t) {
            return end.ends(chunk) && name == chunk.name;
        });
    }

    /// A new chunk at the lowest place with room for it, unless the name is there.
    uint64_t make(const std::string& name, uint32_t bytes) {
        const name_end end(name);
        constexpr size_t nowhere = chunk_capacity;
        size_t gap = nowhere;
        uint64_t free_from = 0;
        uint64_t pa = 0;
        const auto note_gap = [&](const dma_chunk_t& chunk, size_t number) {
            if (number == 0) {
                gap = nowhere;
                free_from = _chunks->_arr[first].pa;
            }
            if (gap == nowhere && chunk.pa - free_from >= bytes) {
                gap = number;
                pa = free_from;
            }
            free_from = chunk.pa + chunk.size;
        };
        walk([&](const dma_chunk_t& chunk, size_t number) {
            note_gap(chunk, number);
            return end.ends(chunk) && name == chunk.name;
        });
        note_gap(_chunks->_arr[last], _count);
        link(name, bytes, pa, gap);
        return pa;
    }

    /// Enters a chunk as number `at` of the order.
    void link(const std::string& name, uint32_t bytes, uint64_t pa, size_t at) {
        const auto made = static_cast<element>(_chunks->_free);
        dma_chunk_t& chunk = _chunks->_arr[made];
        _chunks->_free = chunk.next;
        chunk.allocated = 1;
        std::memcpy(chunk.name, name.c_str(), name.size() + 1);
        std::memcpy(chunk.creator, "bench", sizeof "bench");
        chunk.pa = pa;
        chunk.size = bytes;
        for (int ref = 0; ref < device_capacity; ++ref) {
            chunk.devs._arr[ref].next = ref + 1;
        }
        chunk.devs._arr[device_capacity - 1].next = -1;
        chunk.devs._head = -1;
        chunk.devs._tail = -1;
        chunk.devs._free = 0;
        chunk.prev = at == 0 ? first : _order[at - 1];
        chunk.next = _order[at];
        _chunks->_arr[chunk.prev].next = made;
        _chunks->_arr[chunk.next].prev = made;
        std::copy_backward(&_order[at], &_order[_count + lead], &_order[_count + lead + 1]);
        _order[at] = made;
        ++_count;
    }

    /// The chunk that was met last.
    void take_off(dma_chunk_t* chunk) {
        _chunks->_arr[chunk->prev].next = chunk->next;
        _chunks->_arr[chunk->next].prev = chunk->prev;
        std::memset(static_cast<void*>(chunk), 0, sizeof *chunk);
        chunk->next = _chunks->_free;
        _chunks->_free = _order[_met];
        std::copy(&_order[_met + 1], &_order[_count + lead], &_order[_met]);
        --_count;
    }

    /// By the address of the chunk that fills that page of the region, a hundred times.
    double locate(int number) {
        constexpr int times = 100;
        const uint64_t pa = _chunks->_arr[first].pa + static_cast<uint64_t>(number) * page;
        return time_of([&] {
                   for (int i = 0; i < times; i++) {
                       const locked lock(_lock_file);
                       _result = walk([pa](const dma_chunk_t& chunk, size_t) {
                                     return chunk.pa <= pa && pa < chunk.pa + chunk.size;
                                 })->pa;
                   }
               }) /
               times;
    }

    int _area_file = open_or_fail(area_path, O_RDWR);
    int _lock_file = open_or_fail("/var/tmp/tarvo_lock", O_RDONLY);
    int _memory_file = open_or_fail("/var/tmp/tarvo", O_RDWR);
    chunk_list* _chunks = nullptr;
    size_t _count = chunk_capacity - 2;
    size_t _met = 0; ///< number in the order of the chunk that was found last
    /// The chunks in list order, and the last sentinel as often as is fetched ahead.
    std::array<element, chunk_capacity + lead + 1> _order;
    std::array<element, chunk_capacity> _next;
    volatile uint64_t _result = 0;
};

} // namespace

std::unique_ptr<backend> make_backend() {
    return std::make_unique<floor_backend>();
}
