// One process of the benchmark. It reads commands from its standard input and answers each with a
// line of numbers: nanoseconds for each operation, unless stated otherwise.
//
//     fill N            makes N names of a page each; 0
//     shuffle N         the same, made anew in random order after all were removed; 0
//     wide BYTES        makes one name of that size, "wide"; 0
//     join              starts without doing anything; 0
//     find N K          K look-ups of random names of N
//     churn N K         K times: a new name of a page, and its end
//     find_parallel N P   P new processes look names up at the same time: nanoseconds for each
//                         look-up of any of them, and the share of the slowest; see parallel.hpp
//     churn_parallel N P  the same with new names, each process with one of its own
//     touch K           K times: maps "wide", writes to each page, unmaps
//     attach K          K new processes: from nothing to having found the place
//     attach_find N K   the same, and a name of N found
//     memory            resident kibibytes of this process
//     files             kibibytes of the files that hold the names
//     EXTRA NUMBER      a further measurement that only this backend has

#include "backend.hpp"
#include "parallel.hpp"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <numeric>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t page = 4096;  // bytes
constexpr size_t wide = 65536; // bytes

std::string name_of(int number) {
    return "chunk_" + std::to_string(number);
}

std::vector<int> in_order(int count) {
    std::vector<int> numbers(static_cast<size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

/// Counted from the page tables: the sum in /proc/self/status may be off by some hundred.
double resident_kibibytes() {
    std::ifstream summary("/proc/self/smaps_rollup");
    for (std::string word; summary >> word;) {
        if (word == "Rss:") {
            double kibibytes = 0;
            summary >> kibibytes;
            return kibibytes;
        }
    }
    fail("no Rss in /proc/self/smaps_rollup");
}

/// What a new process measures; it is given up with everything it did.
template <typename Work>
double in_new_process(Work work) {
    int ends[2];
    if (pipe(ends) != 0) {
        fail("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const double time = time_of(work);
        const bool sent = write(ends[1], &time, sizeof time) == sizeof time;
        _exit(sent ? 0 : 1);
    }
    double time = 0;
    const bool received = read(ends[0], &time, sizeof time) == sizeof time;
    close(ends[0]);
    close(ends[1]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!received || status != 0) {
        fail("a new process failed");
    }
    return time;
}

class worker {
  public:
    std::vector<double> carry_out(const std::string& command, int first, int second) {
        if (command == "find_parallel") {
            return in_parallel(second,
                               [this, first](int number) { return finding(first, number); });
        }
        if (command == "churn_parallel") {
            return in_parallel(second, [this](int number) { return churning(number); });
        }
        return {one_number(command, first, second)};
    }

  private:
    double one_number(const std::string& command, int first, int second) {
        if (command == "attach") {
            return attach(first, [](backend&) {});
        }
        if (command == "attach_find") {
            return attach(second, [first](backend& one) { one.find(name_of(first / 2), page); });
        }
        if (command == "memory") {
            return resident_kibibytes();
        }
        return among_names(joined(), command, first, second);
    }

    backend& joined() {
        if (!_backend) {
            _backend = make_backend();
        }
        return *_backend;
    }

    double among_names(backend& one, const std::string& command, int first, int second) {
        if (command == "fill") {
            fill(one, in_order(first));
        } else if (command == "shuffle") {
            shuffle(one, first);
        } else if (command == "wide") {
            one.create("wide", static_cast<size_t>(first));
        } else if (command == "find") {
            return find(one, first, second);
        } else if (command == "churn") {
            return repeat(second, [&one] { make_and_remove(one, "new"); });
        } else if (command == "files") {
            return static_cast<double>(one.file_bytes()) / 1024;
        } else if (command == "touch") {
            return repeat(first, [&one] { one.touch("wide", wide); });
        } else if (command != "join") {
            return extra_work(one, command, first);
        }
        return 0;
    }

    static std::vector<double> in_parallel(int count,
                                           const std::function<operation(int)>& prepare) {
        const parallel_result result = run_in_parallel(count, prepare);
        return {result.time, result.slowest};
    }

    /// In a new process: it joins, unless the one that it was forked from has done so.
    operation finding(int names, int number) {
        _random.seed(static_cast<unsigned>(number));
        return [&one = joined(), wanted = random_names(names, 1000), next = 0U]() mutable {
            one.find(wanted[next++ % wanted.size()], page);
        };
    }

    /// The same. Two processes that free and make the same name can end each other, so
    /// each has a name of its own.
    operation churning(int number) {
        return [&one = joined(), name = "new_" + std::to_string(number)] {
            make_and_remove(one, name);
        };
    }

    static void make_and_remove(backend& one, const std::string& name) {
        one.create(name, page);
        one.remove(name);
    }

    static double extra_work(backend& one, const std::string& command, int number) {
        const auto all = one.extra_works();
        const auto wanted = all.find(command);
        if (wanted == all.end()) {
            fail("unknown command: " + command);
        }
        return wanted->second(number);
    }

    static void fill(backend& one, const std::vector<int>& numbers) {
        for (const int number : numbers) {
            one.create(name_of(number), page);
        }
    }

    void shuffle(backend& one, int count) {
        std::vector<int> numbers = in_order(count);
        fill(one, numbers);
        std::ranges::shuffle(numbers, _random);
        for (const int number : numbers) {
            one.remove(name_of(number));
        }
        std::ranges::shuffle(numbers, _random);
        fill(one, numbers);
    }

    std::vector<std::string> random_names(int names, int count) {
        std::vector<std::string> chosen;
        chosen.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; i++) {
            chosen.push_back(name_of(std::uniform_int_distribution(0, names - 1)(_random)));
        }
        return chosen;
    }

    double find(backend& one, int names, int times) {
        const std::vector<std::string> wanted = random_names(names, times);
        return time_of([&] {
                   for (const std::string& name : wanted) {
                       one.find(name, page);
                   }
               }) /
               times;
    }

    template <typename Work>
    static double repeat(int times, Work work) {
        return time_of([&] {
                   for (int i = 0; i < times; i++) {
                       work();
                   }
               }) /
               times;
    }

    template <typename Work>
    static double attach(int times, Work work) {
        double sum = 0;
        for (int i = 0; i < times; i++) {
            sum += in_new_process([&work] { work(*make_backend()); });
        }
        return sum / times;
    }

    std::unique_ptr<backend> _backend;
    std::mt19937 _random{1};
};

} // namespace

void fail(const std::string& reason) {
    std::cerr << "bench: " << reason << "\n";
    _exit(1); // skips the backend's own clean-up
}

int main() {
    worker one;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        int first = 0;
        int second = 0;
        words >> command >> first >> second;
        for (const double number : one.carry_out(command, first, second)) {
            std::printf("%.3f ", number);
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    _exit(0);
}
