#include "in_sandbox.hpp"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <list>
#include <signal.h>
#include <stdexcept>
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
class lifetime : public testing::Test {
  protected:
    void SetUp() override {
        _mount_namespace = _first.read_line().value();
        _command = std::stoi(_first.read_line().value());
        _helper = std::stoi(_first.read_line().value());
        const auto inside = processes_in(_mount_namespace);
        ASSERT_EQ(std::count(inside.begin(), inside.end(), _command), 1);
        ASSERT_EQ(std::count(inside.begin(), inside.end(), _helper), 1);
    }

    void TearDown() override { _first.kill(SIGKILL); }

    bool is_gone() const {
        return eventually([&] {
            return processes_in(_mount_namespace).empty() && !std::filesystem::exists(_socket);
        });
    }

    /// The FUSE server: in the sandbox, and a child of the tool as the command is, or of nobody.
    pid_t server() const {
        for (const pid_t pid : processes_in(_mount_namespace)) {
            if (pid != _command && parent_line(pid) == "PPid:\t" + std::to_string(_first.pid())) {
                return pid;
            }
        }
        throw std::runtime_error("the sandbox has no server");
    }

    void first_stops_while_all_else_is_killed() {
        const pid_t killed = server();
        _first.kill(SIGSTOP);
        for (const pid_t pid : {killed, _command, _helper}) {
            ::kill(pid, SIGKILL);
        }
        ASSERT_TRUE(eventually([&] { return processes_in(_mount_namespace).empty(); }));
    }

    words join(const words& joined) const {
        return tool(words{"join", "--control", _socket, "--"} + joined);
    }

    temporary_folder _folder;
    std::string _socket = _folder.path() / "control";
    /// The helper is a child of the command, which nobody but the sandbox cleans up.
    process _first{tool({"--world", "low", "--control", _socket, "--", "sh", "-c",
                         R"(trap 'exit 7' TERM
                        readlink /proc/self/ns/mnt; echo $$; sleep 1000 & echo $!
                        while :; do sleep 0.01; done)"}),
                   _folder.path() / "errors"};
    std::string _mount_namespace;
    pid_t _command = -1;
    pid_t _helper = -1;
};

TEST_F(lifetime, NothingIsLeftWhenTheToolIsKilled) {
    _first.kill(SIGKILL);
    EXPECT_TRUE(is_gone());
}

TEST_F(lifetime, NothingIsLeftWhenTheCommandIsKilled) {
    ::kill(_command, SIGKILL);
    EXPECT_EQ(_first.wait().signal, SIGKILL);
    EXPECT_FALSE(std::filesystem::exists(_socket)) << "gone when the tool is, not later";
    EXPECT_TRUE(is_gone());
}

TEST_F(lifetime, NothingIsLeftWhenTheServerIsKilled) {
    ::kill(server(), SIGKILL);
    const auto ended = _first.wait();
    EXPECT_EQ(ended.status, 125);
    EXPECT_NE(_first.error_text().find("was killed"), std::string::npos) << _first.error_text();
    EXPECT_FALSE(std::filesystem::exists(_socket)) << "gone when the tool is, not later";
    EXPECT_TRUE(is_gone());
}

TEST_F(lifetime, NothingIsLeftWhenTheServerAndTheCommandAreKilled) {
    const pid_t killed = server();
    _first.kill(SIGSTOP); // sees both at once
    ::kill(killed, SIGKILL);
    ::kill(_command, SIGKILL);
    _first.kill(SIGCONT);
    _first.wait();
    EXPECT_TRUE(is_gone());
}

/// The kernel gives the lowest free number to a new namespace, often that of one which just ended.
TEST_F(lifetime, CleaningUpSparesASandboxThatCameLater) {
    first_stops_while_all_else_is_killed();
    std::list<process> later;
    for (int i = 0; i < 10; ++i) {
        later.emplace_back(tool({"--", "sh", "-c", "echo up; cat"}),
                           _folder.path() / ("later-" + std::to_string(i)));
        ASSERT_EQ(later.back().read_line(), "up");
    }
    _first.kill(SIGCONT);
    _first.wait();
    for (process& each : later) {
        each.write_line("alive");
        EXPECT_EQ(each.read_line(), "alive") << each.error_text();
    }
}

TEST_F(lifetime, NothingOfAJoinedCommandIsLeftWhenTheServerIsKilled) {
    process second{join({"sh", "-c", "sleep 1000 & echo in; wait"}), _folder.path() / "second"};
    ASSERT_EQ(second.read_line(), "in");
    ::kill(server(), SIGKILL);
    EXPECT_EQ(second.wait().status, 125);
    _first.wait();
    EXPECT_TRUE(is_gone());
}

TEST_F(lifetime, SignalsToTheToolGoOnToTheCommand) {
    _first.kill(SIGTERM);
    const auto ended = _first.wait();
    EXPECT_EQ(ended.status, 7);
    EXPECT_TRUE(is_gone());
}

TEST_F(lifetime, JoinedCommandSeesTheSameSandbox) {
    const auto joined = run_to_end(join({"sh", "-c",
                                         "readlink /proc/self/ns/mnt; head -1 /proc/tarvo; "
                                         "echo ${SIMULATION_VMID-unset}; pwd"}));
    EXPECT_EQ(joined.output, _mount_namespace + "\n80000000\t8fffffff\t0\ttarvo\nunset\n" +
                                 std::filesystem::current_path().string() + "\n");
    EXPECT_EQ(joined.errors, "");
}

TEST_F(lifetime, JoinedCommandEndsTheToolAsItEnds) {
    EXPECT_EQ(run_to_end(join({"sh", "-c", "exit 9"})).status, 9);
    EXPECT_EQ(run_to_end(join({"sh", "-c", "kill -SEGV $$"})).signal, SIGSEGV);
    EXPECT_EQ(run_to_end(join({"/nowhere/command"})).status, 127);
}

TEST_F(lifetime, SandboxOutlivesItsFirstCommandWhileAnotherIsThere) {
    process second{join({"sh", "-c", "echo in; while :; do sleep 0.01; done"}),
                   _folder.path() / "second"};
    ASSERT_EQ(second.read_line(), "in");
    ::kill(_command, SIGKILL);
    _first.wait();
    EXPECT_EQ(run_to_end(join({"cat", proc_file})).output, "80000000\t8fffffff\t0\ttarvo\n");
    second.kill(SIGKILL);
    EXPECT_TRUE(is_gone());
}

TEST_F(lifetime, KillingAJoinedToolLeavesTheSandbox) {
    process second{join({"sh", "-c", "echo $$; while :; do sleep 0.01; done"}),
                   _folder.path() / "second"};
    const pid_t joined = std::stoi(second.read_line().value());
    second.kill(SIGKILL);
    EXPECT_TRUE(eventually([&] { return ::kill(joined, 0) != 0; }));
    EXPECT_EQ(run_to_end(join({"true"})).status, 0);
}

TEST_F(lifetime, RulesChangeWhileTheCommandRuns) {
    const auto rule = [&](const words& more) {
        const auto ended = run_to_end(tool(words{"rule", "--control", _socket} + more));
        EXPECT_EQ(ended.status, 0) << ended.errors;
        return ended.output;
    };
    const auto map = [&] {
        return run_to_end(join({SANDBOX_SPEAKER, "w", iommu_file, map_line})).output;
    };

    EXPECT_EQ(rule({"op=map,errno=EIO", "errno=EPERM"}), "");
    EXPECT_EQ(map(), "open ok\nwrite EIO\nclose ok\n");
    EXPECT_EQ(rule({"--list"}), "1\top=map,errno=EIO\n1\terrno=EPERM\n");
    EXPECT_EQ(rule({"--clear", "--list", "op=map,errno=ENODEV"}), "0\top=map,errno=ENODEV\n");
    EXPECT_EQ(map(), "open ok\nwrite ENODEV\nclose ok\n");
    EXPECT_EQ(rule({"--clear"}), "");
    EXPECT_EQ(map(), "open ok\nwrite 44\nclose ok\n");
}

TEST_F(lifetime, AWrongRuleChangesNothing) {
    const auto ended =
        run_to_end(tool({"rule", "--control", _socket, "--clear", "errno=EIO", "errno=EFOO"}));
    EXPECT_EQ(ended.status, 125);
    EXPECT_NE(ended.errors.find("EFOO"), std::string::npos) << ended.errors;
    EXPECT_EQ(run_to_end(join({SANDBOX_SPEAKER, "w", iommu_file, map_line})).output,
              "open ok\nwrite 44\nclose ok\n");
}

TEST(ending, IsThatOfTheCommand) {
    EXPECT_EQ(run_script({}, "exit 42").status, 42);
    for (const int number : {SIGABRT, SIGSEGV, SIGKILL, SIGTERM, SIGINT}) {
        const auto ended = run_script({}, "kill -" + std::to_string(number) + " $$");
        EXPECT_EQ(ended.signal, number);
        EXPECT_EQ(ended.output + ended.errors, "");
    }
}

TEST(ending, ReportsCommandsThatCannotBeExecuted) {
    EXPECT_EQ(run_to_end(tool({"--", "/nowhere/command"})).status, 127);
    EXPECT_EQ(run_to_end(tool({"--", "/etc/passwd"})).status, 126);
}

TEST(ending, DoesNotWaitForWhatTheCommandLeftRunning) {
    // The pipe would stay open as long as the child or the sandbox's process had it.
    const auto ended = run_to_end({"sh", "-c",
                                   "x=$(" SANDBOX_TOOL " -- sh -c 'sleep 1000 & echo x')"
                                   "; echo $x"});
    EXPECT_EQ(ended.output, "x\n");
}

TEST(control, ReplacesASocketThatNobodyAnswers) {
    const temporary_folder folder;
    const std::string socket = folder.path() / "control";
    process first{
        tool({"--control", socket, "--", "sh", "-c", "echo up; while :; do sleep 0.01; done"}),
        folder.path() / "errors"};
    ASSERT_EQ(first.read_line(), "up");
    EXPECT_EQ(run_to_end(tool({"--control", socket, "--", "true"})).status, 125) << "it is in use";
    std::filesystem::rename(socket, folder.path() / "old");
    first.kill(SIGKILL);
    first.wait();
    // The listener goes with the sandbox; its file, under the other name, stays.
    std::filesystem::rename(folder.path() / "old", socket);
    EXPECT_TRUE(eventually([&] {
        return run_to_end(tool({"--control", socket, "--", "true"})).status == 0;
    }));
}

TEST(control, MayHaveAPathLongerThanASocketAddress) {
    const temporary_folder folder;
    const std::string deep = folder.path() / std::string(100, 'd');
    std::filesystem::create_directory(deep);
    const auto socket = deep + "/control";
    const auto ended =
        run_script({"--control", socket}, SANDBOX_TOOL " rule --list --control " + socket);
    EXPECT_EQ(ended.status, 0) << ended.errors;
}

} // namespace
