#include "region_fixture.hpp"

#include <chrono>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace examples_test {

using namespace tarvo::literals;

namespace {

/// A program whose output, on both streams, is read when the test wants it.
class running {
  public:
    explicit running(const char* program, const char* argument = nullptr) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        _output = ends[0];
        EXPECT_GT(::fcntl(_output, F_SETPIPE_SZ, pipe_bytes), 0);
        _process = ::fork();
        if (_process == 0) {
            ::dup2(ends[1], STDOUT_FILENO);
            ::dup2(ends[1], STDERR_FILENO);
            ::execl(program, program, argument, static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(ends[1]);
    }
    running(const running&) = delete;
    running& operator=(const running&) = delete;
    ~running() { ::close(_output); }

    /// Waits until no more of what it prints fits in the pipe.
    void wait_until_it_is_held_up() const {
        const auto last = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        int waiting = 0;
        while (waiting < pipe_bytes && std::chrono::steady_clock::now() < last) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ::ioctl(_output, FIONREAD, &waiting);
        }
        EXPECT_EQ(waiting, pipe_bytes);
    }

    /// All it prints, until it ends; its exit status goes to `status`.
    std::string finish(int& status) const {
        std::string printed;
        char some[1024];
        for (ssize_t got = 1; got > 0;) {
            got = ::read(_output, some, sizeof some);
            printed.append(some, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        }
        ::waitpid(_process, &status, 0);
        status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return printed;
    }

  private:
    static constexpr int pipe_bytes = 4096;

    pid_t _process;
    int _output;
};

} // namespace

class examples : public region_fixture {};

TEST_F(examples, LeaveNoDeviceRegisteredThatRefuses) {
    allocated("ring", 4_KiB);
    // By the run's rules.
    running driver(TARVO_DRIVER, "0000:0e:00.0");
    int status = 0;
    EXPECT_NE(driver.finish(status).find("device_driver: the kernel driver refuses to map"),
              std::string::npos);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(devices_now().size(), 0U);
}

TEST_F(examples, PrintWhileNobodyWaitsForThem) {
    for (int number = 0; number < 100; ++number) {
        allocated("ring" + std::to_string(number), 4_KiB);
    }
    running consumer(TARVO_CONSUMER);
    consumer.wait_until_it_is_held_up();
    EXPECT_FALSE(lock_is_held());
    int status = 0;
    EXPECT_NE(consumer.finish(status).find("ring99 "), std::string::npos);
    EXPECT_EQ(status, 0);
}

} // namespace examples_test
