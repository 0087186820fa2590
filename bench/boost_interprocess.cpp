#include "backend.hpp"

#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_mapped_file.hpp>
#include <boost/interprocess/mem_algo/simple_seq_fit.hpp>
#include <filesystem>

namespace {

namespace ipc = boost::interprocess;

constexpr size_t page = 4096;                        // bytes
constexpr size_t segment_bytes = size_t{256} << 20U; // room for all rows

#ifdef BENCH_SEQUENTIAL_FIT
using segment =
    ipc::basic_managed_mapped_file<char, ipc::simple_seq_fit<ipc::mutex_family>, ipc::iset_index>;
constexpr const char* path = "/var/tmp/boost_sequential";
#else
using segment = ipc::managed_mapped_file;
constexpr const char* path = "/var/tmp/boost_tree";
#endif

/// One mapped file for all names, with an index and a mutex in it.
class boost_backend : public backend {
  public:
    void create(const std::string& name, size_t bytes) override {
        _segment.construct<char>(name.c_str())[bytes](0);
    }

    void find(const std::string& name, size_t /*bytes*/) override { memory_of(name); }

    void remove(const std::string& name) override {
        if (!_segment.destroy<char>(name.c_str())) {
            fail(name + " cannot be removed");
        }
    }

    /// All is mapped already, so there is only the writing.
    void touch(const std::string& name, size_t bytes) override {
        volatile char* memory = memory_of(name);
        for (size_t i = 0; i < bytes; i += page) {
            memory[i] = 1;
        }
    }

    std::uintmax_t file_bytes() override { return std::filesystem::file_size(path); }

  private:
    char* memory_of(const std::string& name) {
        char* memory = _segment.find<char>(name.c_str()).first;
        if (memory == nullptr) {
            fail(name + " is missing");
        }
        return memory;
    }

    segment _segment{ipc::open_or_create, path, segment_bytes};
};

} // namespace

std::unique_ptr<backend> make_backend() {
    return std::make_unique<boost_backend>();
}
