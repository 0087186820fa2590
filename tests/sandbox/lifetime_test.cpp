#include "tool.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <signal.h>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

/// Processes whose mount namespace is that one, as readlink /proc/self/ns/mnt prints it.
std::vector<pid_t> processes_in(const std::string& mount_namespace) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator{"/proc"}) {
        std::error_code gone;
        const auto link = std::filesystem::read_symlink(entry.path() / "ns/mnt", gone);
        if (!gone && link == mount_namespace) {
            found.push_back(std::stoi(entry.path().filename()));
        }
    }
    return found;
}

std::string parent_line(pid_t pid) {
    const auto status = file_text("/proc/" + std::to_string(pid) + "/status");
    const auto at = status.find("PPid:");
    return at == std::string::npos ? "" : status.substr(at, status.find('\n', at) - at);
}

/// A sandbox with a control socket whose first command waits to be killed.
class Lifetime : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(eventually([&] { return !line(3).empty(); }));
        mount_namespace = line(1);
        command = std::stoi(line(2));
        helper = std::stoi(line(3));
        const auto inside = processes_in(mount_namespace);
        ASSERT_EQ(std::count(inside.begin(), inside.end(), command), 1);
        ASSERT_EQ(std::count(inside.begin(), inside.end(), helper), 1);
    }

    std::string line(int number) const {
        std::istringstream text{first.output()};
        std::string found;
        for (int i = 0; i < number; ++i) {
            found.clear();
            std::getline(text, found);
            if (text.eof()) {
                return "";
            }
        }
        return found;
    }

    bool is_gone() const {
        return eventually([&] {
            return processes_in(mount_namespace).empty() && !std::filesystem::exists(socket);
        });
    }

    /// The FUSE server: in the sandbox, and a child of the tool as the command is, or of nobody.
    pid_t server() const {
        for (const pid_t pid : processes_in(mount_namespace)) {
            if (pid != command && parent_line(pid) == "PPid:\t" + std::to_string(first.pid())) {
                return pid;
            }
        }
        return -1;
    }

    words join(const words& joined) const {
        words arguments{"join", "--control", socket, "--"};
        arguments.insert(arguments.end(), joined.begin(), joined.end());
        return tool(arguments);
    }

    temporary_folder folder;
    std::string socket = folder.path("control");
    /// The helper is a child of the command, which nobody but the sandbox cleans up.
    running_program first{tool({"--world", "low", "--control", socket, "--", "sh", "-c",
                                R"(readlink /proc/self/ns/mnt; echo $$; sleep 1000 & echo $!
                                trap 'exit 7' TERM; while :; do sleep 0.01; done)"})};
    std::string mount_namespace;
    pid_t command = -1;
    pid_t helper = -1;
};

TEST_F(Lifetime, NothingIsLeftWhenTheToolIsKilled) {
    ::kill(first.pid(), SIGKILL);
    EXPECT_TRUE(is_gone());
}

TEST_F(Lifetime, NothingIsLeftWhenTheCommandIsKilled) {
    ::kill(command, SIGKILL);
    EXPECT_EQ(first.wait().signal, SIGKILL);
    EXPECT_FALSE(std::filesystem::exists(socket)) << "gone when the tool is, not later";
    EXPECT_TRUE(is_gone());
}

TEST_F(Lifetime, NothingIsLeftWhenTheServerIsKilled) {
    const pid_t killed = server();
    ASSERT_GT(killed, 0);
    ::kill(killed, SIGKILL);
    const auto ended = first.wait();
    EXPECT_EQ(ended.status, 125);
    EXPECT_NE(ended.errors.find("was killed"), std::string::npos) << ended.errors;
    EXPECT_FALSE(std::filesystem::exists(socket)) << "gone when the tool is, not later";
    EXPECT_TRUE(is_gone());
}

TEST_F(Lifetime, NothingIsLeftWhenTheServerAndTheCommandAreKilled) {
    const pid_t killed = server();
    ASSERT_GT(killed, 0);
    ::kill(first.pid(), SIGSTOP); // sees both at once
    ::kill(killed, SIGKILL);
    ::kill(command, SIGKILL);
    ::kill(first.pid(), SIGCONT);
    first.wait();
    EXPECT_TRUE(is_gone());
}

TEST_F(Lifetime, NothingOfAJoinedCommandIsLeftWhenTheServerIsKilled) {
    running_program second{join({"sh", "-c", "sleep 1000 & echo in; wait"})};
    ASSERT_TRUE(eventually([&] { return second.output() == "in\n"; }));
    ::kill(server(), SIGKILL);
    EXPECT_EQ(second.wait().status, 125);
    first.wait();
    EXPECT_TRUE(is_gone());
}

TEST_F(Lifetime, SignalsToTheToolGoOnToTheCommand) {
    ::kill(first.pid(), SIGTERM);
    const auto ended = first.wait();
    EXPECT_EQ(ended.status, 7);
    EXPECT_TRUE(is_gone());
}

TEST_F(Lifetime, JoinedCommandSeesTheSameSandbox) {
    const auto joined = run(join({"sh", "-c",
                                  "readlink /proc/self/ns/mnt; head -1 /proc/tarvo; "
                                  "echo ${SIMULATION_VMID-unset}; pwd"}));
    EXPECT_EQ(joined.output, mount_namespace + "\n80000000\t8fffffff\t0\ttarvo\nunset\n" +
                                 std::filesystem::current_path().string() + "\n");
    EXPECT_EQ(joined.errors, "");
}

TEST_F(Lifetime, JoinedCommandEndsTheToolAsItEnds) {
    EXPECT_EQ(run(join({"sh", "-c", "exit 9"})).status, 9);
    EXPECT_EQ(run(join({"sh", "-c", "kill -SEGV $$"})).signal, SIGSEGV);
    EXPECT_EQ(run(join({"/nowhere/command"})).status, 127);
}

TEST_F(Lifetime, SandboxOutlivesItsFirstCommandWhileAnotherIsThere) {
    running_program second{join({"sh", "-c", "echo in; while :; do sleep 0.01; done"})};
    ASSERT_TRUE(eventually([&] { return second.output() == "in\n"; }));
    ::kill(command, SIGKILL);
    first.wait();
    EXPECT_EQ(run(join({"cat", proc_file})).output, "80000000\t8fffffff\t0\ttarvo\n");
    ::kill(second.pid(), SIGKILL);
    EXPECT_TRUE(is_gone());
}

TEST_F(Lifetime, KillingAJoinedToolLeavesTheSandbox) {
    running_program second{join({"sh", "-c", "echo $$; while :; do sleep 0.01; done"})};
    ASSERT_TRUE(eventually([&] { return second.output().ends_with('\n'); }));
    const pid_t joined = std::stoi(second.output());
    ::kill(second.pid(), SIGKILL);
    EXPECT_TRUE(eventually([&] { return ::kill(joined, 0) != 0; }));
    EXPECT_EQ(run(join({"true"})).status, 0);
}

TEST_F(Lifetime, RulesChangeWhileTheCommandRuns) {
    const auto rule = [&](const words& more) {
        words arguments{"rule", "--control", socket};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const auto ended = run(tool(arguments));
        EXPECT_EQ(ended.status, 0) << ended.errors;
        return ended.output;
    };
    const auto map = [&] { return run(join({SANDBOX_SPEAKER, "w", iommu_file, map_line})).output; };

    EXPECT_EQ(rule({"op=map,errno=EIO", "errno=EPERM"}), "");
    EXPECT_EQ(map(), "open ok\nwrite EIO\nclose ok\n");
    EXPECT_EQ(rule({"--list"}), "1\top=map,errno=EIO\n1\terrno=EPERM\n");
    EXPECT_EQ(rule({"--clear", "--list", "op=map,errno=ENODEV"}), "0\top=map,errno=ENODEV\n");
    EXPECT_EQ(map(), "open ok\nwrite ENODEV\nclose ok\n");
    EXPECT_EQ(rule({"--clear"}), "");
    EXPECT_EQ(map(), "open ok\nwrite 44\nclose ok\n");
}

TEST_F(Lifetime, AWrongRuleChangesNothing) {
    const auto ended =
        run(tool({"rule", "--control", socket, "--clear", "errno=EIO", "errno=EFOO"}));
    EXPECT_EQ(ended.status, 125);
    EXPECT_NE(ended.errors.find("EFOO"), std::string::npos) << ended.errors;
    EXPECT_EQ(run(join({SANDBOX_SPEAKER, "w", iommu_file, map_line})).output,
              "open ok\nwrite 44\nclose ok\n");
}

TEST(Ending, IsThatOfTheCommand) {
    EXPECT_EQ(run_script({}, "exit 42").status, 42);
    for (const int number : {SIGABRT, SIGSEGV, SIGKILL, SIGTERM, SIGINT}) {
        const auto ended = run_script({}, "kill -" + std::to_string(number) + " $$");
        EXPECT_EQ(ended.signal, number);
        EXPECT_EQ(ended.output + ended.errors, "");
    }
}

TEST(Ending, ReportsCommandsThatCannotBeExecuted) {
    EXPECT_EQ(run(tool({"--", "/nowhere/command"})).status, 127);
    EXPECT_EQ(run(tool({"--", "/etc/passwd"})).status, 126);
}

TEST(Ending, DoesNotWaitForWhatTheCommandLeftRunning) {
    // The pipe would stay open as long as the child or the sandbox's process had it.
    const auto ended = run({"sh", "-c",
                            "x=$(" SANDBOX_TOOL " -- sh -c 'sleep 1000 & echo x')"
                            "; echo $x"});
    EXPECT_EQ(ended.output, "x\n");
}

TEST(Control, ReplacesASocketThatNobodyAnswers) {
    const temporary_folder folder;
    const auto socket = folder.path("control");
    running_program first{
        tool({"--control", socket, "--", "sh", "-c", "echo up; while :; do sleep 0.01; done"})};
    ASSERT_TRUE(eventually([&] { return first.output() == "up\n"; }));
    EXPECT_EQ(run(tool({"--control", socket, "--", "true"})).status, 125) << "it is in use";
    std::filesystem::rename(socket, folder.path("old"));
    ::kill(first.pid(), SIGKILL);
    first.wait();
    // The listener goes with the sandbox; its file, under the other name, stays behind.
    std::filesystem::rename(folder.path("old"), socket);
    EXPECT_TRUE(eventually([&] {
        return run(tool({"--control", socket, "--", "true"})).status == 0;
    }));
}

TEST(Control, MayHaveAPathLongerThanASocketAddress) {
    const temporary_folder folder;
    const auto deep = folder.path(std::string(100, 'd'));
    std::filesystem::create_directory(deep);
    const auto socket = deep + "/control";
    const auto ended =
        run_script({"--control", socket}, SANDBOX_TOOL " rule --list --control " + socket);
    EXPECT_EQ(ended.status, 0) << ended.errors;
}

} // namespace
