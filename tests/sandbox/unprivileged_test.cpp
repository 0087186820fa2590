#include "in_sandbox.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Becomes nobody, with a /dev/fuse that nobody may open and the tool where nobody may reach it.
const std::string become_nobody = R"(
    mount -t tmpfs -o mode=0755 none "$0" && cp "$1" "$2" "$0" &&
    mknod -m 0666 "$0/fuse" c 10 229 && mount --bind "$0/fuse" /dev/fuse &&
    install -d -m 0777 "$0/work" && cd "$0/work" &&
    shift 2 && exec setpriv --reuid 65534 --regid 65534 --clear-groups --inh-caps=-all "$@")";

/// Runs programs without privilege: root becomes nobody first.
class unprivileged : public testing::Test {
  protected:
    finished run_without_privilege(const words& command) const {
        if (::geteuid() != 0) {
            return run_to_end(command);
        }
        words whole{"unshare",     "--mount", "sh",         "-c",
                    become_nobody, home(),    SANDBOX_TOOL, SANDBOX_SPEAKER};
        whole.insert(whole.end(), command.begin(), command.end());
        return run_to_end(whole);
    }

    finished run_tool(words arguments) const {
        arguments.insert(arguments.begin(), tool_path());
        return run_without_privilege(arguments);
    }

    std::string tool_path() const {
        return ::geteuid() == 0 ? home() + "/tarvo-sandbox" : SANDBOX_TOOL;
    }

    std::string speaker() const {
        return ::geteuid() == 0 ? home() + "/sandbox_speaker" : SANDBOX_SPEAKER;
    }

    std::string home() const { return _folder.path() / "home"; }

    void SetUp() override {
        std::filesystem::create_directory(home());
        ASSERT_EQ(::chmod(_folder.path().c_str(), 0755), 0);
        const auto tried = run_tool({"--", "true"});
        if (tried.errors.find("refuses user namespaces") != std::string::npos) {
            GTEST_SKIP() << "NOT TESTED: " << tried.errors;
        }
        ASSERT_EQ(tried.status, 0) << tried.errors;
    }

    temporary_folder _folder;
};

TEST_F(unprivileged, CommandSeesItselfAsRootInTheSameWorld) {
    const auto ended = run_tool({"--world", "high", "--", "sh", "-c", R"(
        id -u; cat /proc/tarvo; stat -c '%a %u %g' /proc/tarvo; ls -A /var/tmp
        : > /var/shmem/x && : > /var/lock/subsys/x && : > /dev/null && echo written
        stat -c %s /dev/mem; cat /proc/self/comm)"});
    EXPECT_EQ(ended.output,
              "0\n200000000\t23fffffff\t0\ttarvo\n644 0 0\nwritten\n9663676416\ncat\n");
    EXPECT_EQ(ended.errors, "");
}

TEST_F(unprivileged, DriverAnswersAndRefuses) {
    const auto ended =
        run_tool({"--world", "cma", "--rule", "op=map,errno=ENODEV", "--", "sh", "-c",
                  "$0 w " + iommu_file +
                      " \"$1\"; $0 w /proc/tarvo 'a x 10\n'; "
                      "cat /proc/tarvo",
                  speaker(), map_line});
    EXPECT_EQ(ended.output, "open ok\nwrite ENODEV\nclose ok\nopen ok\nwrite 7\nclose ok\n"
                            "100000000\t13fffffff\t0\tCMA\nx\t100000000\t10\n")
        << ended.errors;
}

TEST_F(unprivileged, StateLogAndJoiningWorkFromInsideAndOutside) {
    const auto ended = run_without_privilege({"sh", "-c", R"sh(
        cd "$(mktemp -d)"
        join="$0 join --control control -- sh -c 'cat /var/shmem/f; head -1 /proc/tarvo'"
        "$0" --world low --state state --log log --control control -- \
            sh -c "echo kept > /var/shmem/f; $join; : > go; while test -e go; do sleep 0.01; done" &
        while ! test -e go; do sleep 0.01; done
        eval "$join"
        rm go; wait
        cat state/shmem/f; wc -l < log; ls
        rm -r "$PWD")sh",
                                              tool_path()});
    EXPECT_EQ(ended.output, "kept\n80000000\t8fffffff\t0\ttarvo\n"
                            "kept\n80000000\t8fffffff\t0\ttarvo\n"
                            "kept\n4\nlog\nstate\n")
        << ended.errors;
}

TEST_F(unprivileged, EndsAsTheCommandEnds) {
    EXPECT_EQ(run_tool({"--", "sh", "-c", "exit 5"}).status, 5);
    EXPECT_EQ(run_tool({"--", "sh", "-c", "kill -ABRT $$"}).signal, SIGABRT);
}

TEST_F(unprivileged, ADeviceThatCannotBeOpenedIsNamed) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "NOT TESTED: only root can take /dev/fuse away from nobody";
    }
    const auto ended = run_to_end({"unshare", "--mount", "sh", "-c",
                                   R"(mount -t tmpfs -o mode=0755 none "$0" && cp "$1" "$0/tool" &&
            mknod -m 0600 "$0/fuse" c 10 229 && mount --bind "$0/fuse" /dev/fuse && cd / &&
            exec setpriv --reuid 65534 --regid 65534 --clear-groups "$0/tool" -- true)",
                                   home(), SANDBOX_TOOL});
    EXPECT_EQ(ended.status, 125);
    EXPECT_NE(ended.errors.find("/dev/fuse"), std::string::npos) << ended.errors;
}

} // namespace
