#include "contender.hpp"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr const char* path = "/var/tmp/floors_bench";

/// What the machine takes for the steps that no call of the library can do without.
class floors : public contender {
  public:
    void create(const std::string& /*name*/, std::size_t /*bytes*/) override {}
    void find(const std::string& /*name*/, std::size_t /*bytes*/) override { lock_and_unlock(); }
    void remove(const std::string& /*name*/) override {}
    void touch(const std::string& /*name*/, std::size_t /*bytes*/) override {}

    std::uintmax_t file_bytes() override { return std::filesystem::file_size(path); }

    std::map<std::string, std::function<double(int)>> specialities() override {
        return {{"lock_pair", [this](int times) { return lock_pair(times); }},
                {"page_in_and_out", [this](int times) { return page_in_and_out(times); }}};
    }

  private:
    void lock_and_unlock() const {
        flock(_file, LOCK_EX);
        flock(_file, LOCK_UN);
    }

    double lock_pair(int times) const {
        return time_of([&] {
                   for (int i = 0; i < times; i++) {
                       lock_and_unlock();
                   }
               }) /
               times;
    }

    /// A page of the file mapped, zeroed and unmapped, as a new chunk's is.
    double page_in_and_out(int times) const {
        return time_of([&] {
                   for (int i = 0; i < times; i++) {
                       void* memory =
                           mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, _file, 0);
                       std::memset(memory, 0, 4096);
                       munmap(memory, 4096);
                   }
               }) /
               times;
    }

    static int open_file() {
        const int file = open(path, O_RDWR | O_CREAT, 0600);
        if (file < 0 || ftruncate(file, 4096) != 0) {
            give_up("no file for the floors");
        }
        return file;
    }

    int _file = open_file();
};

} // namespace

std::unique_ptr<contender> join_contest() {
    return std::make_unique<floors>();
}
