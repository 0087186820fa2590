#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// A second reading of the shared area, by offset alone and one byte at a time. It includes nothing
// of the library on purpose: a field that moved there must not move here with it.

// Where things lie, in bytes. Add the offset of an element to the offset of its field.
namespace area_offset {

inline constexpr size_t initialized = 0;
inline constexpr size_t chunks_head = 70123524;
inline constexpr size_t chunks_tail = 70123528;
inline constexpr size_t chunks_free = 70123532;
inline constexpr size_t devices_head = 70130704;
inline constexpr size_t devices_tail = 70130708;
inline constexpr size_t devices_free = 70130712;
inline constexpr size_t content_end = 70130716;

/// Where the elements begin, and how long each is. References lie at `devs` of their chunk.
inline constexpr size_t first_chunk = 4;
inline constexpr size_t first_device = 70123536;
inline constexpr size_t chunk_bytes = 4280;
inline constexpr size_t device_bytes = 28;
inline constexpr size_t ref_bytes = 16;

/// Start of an element; std::out_of_range for one that does not exist.
size_t chunk(int index);
size_t device(int index);
size_t ref(int chunk_index, int index);

/// Fields of every element.
inline constexpr size_t next = 0;
inline constexpr size_t prev = 4;
inline constexpr size_t allocated = 8;

/// Further fields of a chunk.
inline constexpr size_t name = 9;
inline constexpr size_t pa = 60;
inline constexpr size_t size = 68;
inline constexpr size_t creator = 72;
inline constexpr size_t devs = 172;
inline constexpr size_t devs_head = 4268;
inline constexpr size_t devs_tail = 4272;
inline constexpr size_t devs_free = 4276;

/// Further fields of a device.
inline constexpr size_t domain = 12;
inline constexpr size_t bus = 16;
inline constexpr size_t devfn = 20;
inline constexpr size_t online = 24;

/// The further field of a reference.
inline constexpr size_t dev = 12;

} // namespace area_offset

struct area_ends {
    int32_t head;
    int32_t tail;
    int32_t free;
};

struct area_ref {
    int index; ///< within its chunk
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    int32_t dev;
};

struct area_device {
    int index;
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    int32_t domain;
    int32_t bus;
    int32_t devfn;
    uint8_t online;
};

struct area_chunk {
    int index;
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    std::string name; ///< up to the terminator, or the whole field where there is none
    uint64_t pa;
    uint32_t size;
    std::string creator; ///< as `name`
    area_ends devs;
};

/// Reads an area that lies in memory and outlives the view. Nothing is remembered: each call reads
/// what is there now. Walks throw std::runtime_error, with the rule and the values, on a list that
/// cannot be walked; they never run for ever.
class area_view {
  public:
    /// Throws std::runtime_error when there are fewer bytes than an area has.
    explicit area_view(std::span<const uint8_t> bytes);

    std::span<const uint8_t> bytes() const { return _bytes; }
    std::span<const uint8_t> raw(size_t offset, size_t count) const;
    uint8_t u8(size_t offset) const;
    uint32_t u32(size_t offset) const;
    int32_t i32(size_t offset) const;
    uint64_t u64(size_t offset) const;
    std::string text(size_t offset, size_t room) const;

    uint8_t initialized() const { return u8(area_offset::initialized); }
    area_ends chunk_ends() const;
    area_ends device_ends() const;

    /// Any element, on its list or not.
    area_chunk chunk(int index) const;
    area_device device(int index) const;
    area_ref ref(int chunk_index, int index) const;
    /// All 4280 bytes of it.
    std::span<const uint8_t> chunk_bytes(int index) const;

    /// What is on a list, from head to tail; chunks with both sentinels.
    std::vector<area_chunk> chunks() const;
    std::vector<area_device> devices() const;
    std::vector<area_ref> refs(int chunk_index) const;

    /// The elements on a free chain, in the order in which they will be handed out.
    std::vector<int> free_chunks() const;
    std::vector<int> free_devices() const;
    std::vector<int> free_refs(int chunk_index) const;

  private:
    std::span<const uint8_t> _bytes;
};

/// Writes single fields, for tests that damage an area. std::out_of_range after its end.
class area_writer {
  public:
    explicit area_writer(std::span<uint8_t> bytes) : _bytes(bytes) {}

    void u8(size_t offset, uint8_t value) const;
    void u32(size_t offset, uint32_t value) const;
    void i32(size_t offset, int32_t value) const;
    void u64(size_t offset, uint64_t value) const;
    /// The text and its terminator; what lies after stays.
    void text(size_t offset, std::string_view value) const;

  private:
    std::span<uint8_t> _bytes;
};

/// An area file, mapped shared: it shows, and changes, what all processes see. Takes no lock.
class area_file {
  public:
    enum class access { read, write };

    /// Throws std::system_error when the file cannot be opened or mapped, std::runtime_error when
    /// it is shorter than an area.
    explicit area_file(const std::filesystem::path& path, access wanted = access::read);
    ~area_file();
    area_file(const area_file&) = delete;
    area_file& operator=(const area_file&) = delete;

    area_view view() const { return area_view(_bytes); }
    /// Only for a file opened for writing; writing to any other one faults.
    area_writer writer() const { return area_writer(_bytes); }
    /// The bytes as they are now, to be compared later.
    std::vector<uint8_t> snapshot() const { return {_bytes.begin(), _bytes.end()}; }

  private:
    std::span<uint8_t> _bytes;
};

/// What a test expects to be wrong, and is therefore not reported.
struct area_allowance {
    bool overlap = false;    ///< chunks that overlap: the driver chose their addresses
    bool stale_refs = false; ///< references to a device that was forgotten while it was offline
};

/// Walks the whole area and says, with values, which rules it breaks, of each list the first breach
/// of each rule; empty when all is well. An area that is not built yet breaks the first rule.
std::vector<std::string> area_breaches(const area_view& area, area_allowance allowed = {});
