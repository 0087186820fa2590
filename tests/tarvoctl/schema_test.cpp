#include "tool.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>

namespace schema_test {

namespace {

const arguments json{"--json"};

/// Each command that knows --json, at least once; with what makes its output long.
const std::vector<arguments> commands{
    {"list"},
    {"devices"},
    {"show", "rx_ring"},
    {"show", "stats"},
    {"map"},
    {"map", "--fit", "64K"},
    {"map", "--fit", "1G"},
    {"check"},
    {"diff", "@before"},
    {"who"},
    {"who", "rx_ring"},
    {"lock"},
    {"leaks"},
    {"doctor"},
    {"find", "0x20000000"},
    {"find", "0x30000000"},
    {"translate", "0x200000000"},
    {"limits"},
    {"alloc", "fresh", "4K"},
    {"register", "05:00.0"},
    {"free", "rx_ring"},
    {"free", "fresh", "--force"},
    {"unregister", "05:00.0", "--force"},
    {"snapshot", "@after"},
    {"iommu-unmap", "05:00.0"},
    {"write", "stats"},
    {"fill", "stats", "7", "--size", "16"},
    {"dump"},
};

/// A region with two chunks of one name, a mapping, a device that is offline and references to one
/// that is gone.
void fill(sandbox& machine, client& driver, const std::string& before) {
    driver.alloc("rx_ring", 0x10000, "driver");
    ASSERT_EQ(tarvoctl(machine, {"snapshot", before}).status, 0);
    driver.alloc("stats", 0x1000, "agent");
    driver.alloc("stats", 0x2000, "agent");
    driver.register_device(0, 3, 0);
    driver.register_device(0, 4, 8);
    driver.map("rx_ring");
    machine.add_rules({"op=map,errno=ENODEV"});
    driver.alloc("\xfe", 0x1000, "\xff");
    driver.alloc("more", 0x1000, "driver"); // takes both offline
    driver.unregister_device(0, 4, 8);
}

class validator {
  public:
    /// Puts a document aside, to be held against the schema with the others.
    void add(const nlohmann::json& document) {
        _files.push_back(_folder.path() / (std::to_string(_files.size()) + ".json"));
        std::ofstream(_files.back()) << document;
        _seen.insert(document.contains("error") ? "error"
                                                : document.at("command").get<std::string>());
    }

    /// The schema's complaint; empty when there is none.
    std::string complaint() const {
        process run(arguments{TARVO_PYTHON, TARVOCTL_VALIDATE, TARVOCTL_SCHEMA} + _files,
                    _folder.path() / "errors");
        while (run.read_line()) {
        }
        return run.wait() == normal_end ? "" : run.error_text();
    }

    /// The commands that the schema knows and no document came from.
    std::set<std::string> missing() const {
        const auto schema = nlohmann::json::parse(file_text(TARVOCTL_SCHEMA));
        std::set<std::string> names;
        for (const auto& branch : schema.at("oneOf")) {
            const std::string name = branch.at("$ref");
            names.insert(name.substr(name.rfind('/') + 1));
        }
        for (const auto& name : _seen) {
            names.erase(name);
        }
        return names;
    }

  private:
    temporary_folder _folder;
    std::vector<std::string> _files;
    std::set<std::string> _seen;
};

/// Lines of watch: what it begins with, changes, and the end of the area.
std::vector<nlohmann::json> watched(sandbox& machine, client& driver) {
    running_tool watch = start_tarvoctl(machine, {"watch", "--json", "--interval", "0.02"});
    std::vector<nlohmann::json> printed;
    const auto take = [&] {
        printed.push_back(nlohmann::json::parse(watch.program.read_line().value()));
    };
    take();
    driver.alloc("watched", 0x1000, "driver");
    take();
    driver.register_device(0, 6, 0);
    take();
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::next, 3);
    while (printed.back().at("change") != "damaged") {
        take();
    }
    std::filesystem::remove(machine.shared_area());
    take();
    watch.end_by(SIGTERM);
    return printed;
}

TEST(schema, EveryCommandKeepsToIt) {
    sandbox machine(high);
    const temporary_folder folder;
    const std::string before = folder.path() / "before";
    client driver = machine.start();
    validator documents;
    documents.add(json_of(tarvoctl(machine, {"iommu-map", "05:00.0", "--prot", "r", "--json"})));
    fill(machine, driver, before);
    for (std::vector<std::string> words : commands) {
        for (std::string& word : words) {
            word = word == "@before" ? before : word == "@after" ? before + "_after" : word;
        }
        documents.add(json_of(tarvoctl(machine, words + json)));
    }
    // With damage to report.
    const auto link = area_offset::chunk(3) + area_offset::next;
    const int32_t sound = machine.area().view().i32(link);
    machine.writable_area().writer().i32(link, 3);
    const std::vector<arguments> looks{
        {"list"},    {"check"},           {"repair", "--dry-run"}, {"map"}, {"map", "--fit", "4K"},
        {"devices"}, {"show", "rx_ring"}, {"find", "0x20000000"}};
    for (const arguments& words : looks) {
        documents.add(json_of(tarvoctl(machine, words + json)));
    }
    machine.writable_area().writer().i32(link, sound);
    // And with chunks that overlap.
    const auto size = area_offset::chunk(2) + area_offset::size;
    machine.writable_area().writer().u32(size, 0x20000);
    for (const arguments& words : looks) {
        documents.add(json_of(tarvoctl(machine, words + json)));
    }
    machine.writable_area().writer().u32(size, 0x10000);
    for (const auto& line : watched(machine, driver)) {
        documents.add(line);
    }
    documents.add(json_of(tarvoctl(machine, {"show", "nobody", "--json"})));
    EXPECT_EQ(documents.complaint(), "");
    EXPECT_EQ(documents.missing(), std::set<std::string>{});
}

/// Commands that fail: in their words, in what they find, in a call of the library.
const std::vector<arguments> failing{
    {},
    {"--json"},
    {"lits"},
    {"list", "--sort", "weight"},
    {"list", "--area", "/missing"},
    {"show", "missing"},
    {"find", "0xffffffff"},
    {"alloc", "a", "4K", "--creator", ""},
    {"free", "missing"},
    {"read", "missing"},
    {"write", "missing"},
    {"repair", "/missing"},
    {"snapshot", "/missing/file"},
    {"top", "--interval", "0"},
    {"watch", "--interval", "0"},
    {"iommu-map", "02:00.0"},
    {"dump", "surplus"},
};

TEST(schema, EveryFailureIsADocument) {
    sandbox machine(low, {"--rule", "op=map,errno=EIO"});
    machine.start().alloc("rx_ring", 0x1000);
    validator documents;
    for (const arguments& words : failing) {
        const auto outcome = tarvoctl(machine, words + json);
        const auto document = json_of(outcome);
        documents.add(document);
        EXPECT_EQ(document.at("error").at("status"), outcome.status);
        EXPECT_TRUE(
            ends_with(outcome.errors,
                      "tarvoctl: " + document.at("error").at("message").get<std::string>() + "\n"));
        const bool named =
            !words.empty() && words.front().front() != '-' && words.front() != "lits";
        EXPECT_EQ(document.at("command"), named ? nlohmann::json(words.front()) : nullptr);
    }
    EXPECT_EQ(documents.complaint(), "");
}

TEST(schema, AFailureAfterADocumentThatCannotBeWrittenIsNoSecondOne) {
    sandbox machine(low);
    machine.start().alloc("rx_ring", 0x1000);
    const auto outcome =
        run_program(machine, {"sh", "-c", "exec \"$0\" list --json >/dev/full", TARVOCTL});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors,
              "tarvoctl: cannot write to standard output: No space left on device\n");
}

TEST(schema, CompactIsADocumentALine) {
    sandbox machine(low);
    const client driver = machine.start({"alloc first 1 test", "alloc second 1 test"});
    const auto outcome = tarvoctl(machine, {"list", "--json=compact"});
    EXPECT_EQ(outcome.output.find('\n'), outcome.output.size() - 1);
    EXPECT_EQ(json_of(outcome), json_of(tarvoctl(machine, {"list", "--json"})));
    const auto failed = tarvoctl(machine, {"show", "third", "--json=compact"});
    EXPECT_EQ(failed.status, 2);
    EXPECT_EQ(failed.output.find('\n'), failed.output.size() - 1);
    EXPECT_EQ(json_of(failed).at("error").at("kind"), "usage");
}

TEST(schema, AnElementOfAListIsALine) {
    sandbox machine(low);
    client driver = machine.start();
    driver.fill("chunk_", 100);
    const auto lines = lines_of(tarvoctl(machine, {"list", "--json"}).output);
    EXPECT_LT(lines.size(), 110);
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const std::string& line) { return line.starts_with("    {\"index\":"); }),
        100);
}

TEST(schema, AnUnknownLayoutIsAUsageError) {
    sandbox machine(low);
    const auto outcome = tarvoctl(machine, {"list", "--json=pretty"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors,
              "tarvoctl: --json=pretty: unknown layout; there are --json and --json=compact\n");
}

TEST(schema, ADocumentThatBreaksItIsNoticed) {
    validator documents;
    documents.add({{"schema", 1},
                   {"command", "diff"},
                   {"consistent", true},
                   {"changes", 7},
                   {"damage", nlohmann::json::array()}});
    EXPECT_TRUE(contains(documents.complaint(), "7 is not of type 'array'"));
}

} // namespace

} // namespace schema_test
