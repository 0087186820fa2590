#include "backend.hpp"

#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t page = 4096; // bytes
constexpr const char* prefix = "bench_";

/// One object for each name. Looking it up is opening it.
class posix_shm_backend : public backend {
  public:
    void create(const std::string& name, size_t bytes) override {
        const int file = open_object(name, O_RDWR | O_CREAT | O_EXCL);
        if (ftruncate(file, static_cast<off_t>(bytes)) != 0) {
            fail(name + " gets no memory");
        }
        close(file);
    }

    void find(const std::string& name, size_t /*bytes*/) override {
        close(open_object(name, O_RDWR));
    }

    void remove(const std::string& name) override {
        if (shm_unlink(path_of(name).c_str()) != 0) {
            fail(name + " cannot be removed");
        }
    }

    void touch(const std::string& name, size_t bytes) override {
        const int file = open_object(name, O_RDWR);
        void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (memory == MAP_FAILED) {
            fail(name + " cannot be mapped");
        }
        for (size_t i = 0; i < bytes; i += page) {
            static_cast<volatile char*>(memory)[i] = 1;
        }
        munmap(memory, bytes);
        close(file);
    }

    std::uintmax_t file_bytes() override {
        std::uintmax_t sum = 0;
        for (const auto& object : std::filesystem::directory_iterator("/dev/shm")) {
            if (object.path().filename().string().starts_with(prefix)) {
                sum += object.file_size();
            }
        }
        return sum;
    }

  private:
    static std::string path_of(const std::string& name) { return std::string{"/"} + prefix + name; }

    static int open_object(const std::string& name, int flags) {
        const int file = shm_open(path_of(name).c_str(), flags, 0600);
        if (file < 0) {
            fail(name + " cannot be opened");
        }
        return file;
    }
};

} // namespace

std::unique_ptr<backend> make_backend() {
    return std::make_unique<posix_shm_backend>();
}
