#include "help.hpp"

#include <memory>

namespace sandbox {

const help_page run_page{
    "Run a command in a machine that has a libtarvo kernel driver, without having one.",
    R"(
  tarvo-sandbox [run] [OPTIONS] -- COMMAND [ARG...]       start a sandbox
  tarvo-sandbox join --control PATH -- COMMAND [ARG...]   a further command in it
  tarvo-sandbox rule --control PATH [RULE...]             change its rules

The command sees its own /proc/tarvo, /dev/mem, /sys/kernel/tarvo_iommu_map_region, /var/tmp,
/var/shmem and /var/lock/subsys. The rest of the machine is as it is, and stays as it is.
)",
    R"(Rules are KEY=VALUE, joined by commas. The first that matches and is due answers.
  which call            op=map|unmap|allocate|release|open-read|open-write|any  file=proc|sysfs
                        at=open|write|close  device=0000:03:00.0  range=0xSTART-0xEND  name=CHUNK
  which of them         nth=3  nth=3+  nth=3-5
  the answer            errno=EIO  address=0x0  short=4  listing=missing-field|garbage|wrong-size|
                        address-zero|empty|no-first-line|first-line-only|extra-name|extra-size

Examples
  tarvo-sandbox -- ./client                        simulation, nothing left behind
  tarvo-sandbox --world low --log /tmp/log -- ./client
  tarvo-sandbox --world low --rule op=map,nth=2,errno=ENODEV -- ./client
  tarvo-sandbox --world cma --rule listing=wrong-size,name=rx_ring -- ./client

The tool ends as the command ends, by exit status or by signal. 125: the tool itself failed;
126: the command cannot be executed; 127: there is no such command. See tarvo-sandbox(1).)"};

const help_page join_page{"Run a further command in a sandbox that was started with --control.",
                          " tarvo-sandbox join --control PATH -- COMMAND [ARG...]\n",
                          "The sandbox lives until the last of its commands has ended."};

const help_page rule_page{
    "Change the rules of a running sandbox that was started with --control.",
    " tarvo-sandbox rule --control PATH [--clear] [--list] [RULE...]\n",
    "The change is in force when the tool returns. See tarvo-sandbox --help for how to write a "
    "rule."};

namespace {

/// The parser's own usage line knows no command after "--", and it leaves two lines blank between
/// groups of options.
class formatter : public CLI::Formatter {
  public:
    explicit formatter(const char* usage) : _usage{usage} {
        constexpr size_t columns_of_names = 24;
        column_width(columns_of_names);
        label("REQUIRED", "");
    }

    std::string make_usage(const CLI::App* /*command*/, std::string /*name*/) const override {
        return std::string{"\nUsage:"} + _usage;
    }
    std::string make_help(const CLI::App* command, std::string name,
                          CLI::AppFormatMode mode) const override {
        return CLI::detail::find_and_replace(CLI::Formatter::make_help(command, name, mode),
                                             "\n\n\n", "\n\n");
    }

  private:
    const char* _usage;
};

} // namespace

void set_help(CLI::App& command, const help_page& page) {
    command.description(page.purpose);
    command.footer(page.footer);
    command.formatter(std::make_shared<formatter>(page.usage));
    command.set_help_flag("-h,--help", "this text");
    command.set_version_flag("--version", "tarvo-sandbox " TARVO_SANDBOX_VERSION, "the version");
}

} // namespace sandbox
