#include "tool.hpp"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>

namespace {

/// Each command that knows --json, at least once; with what makes its output long.
const std::vector<std::vector<std::string>> commands{
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
        _seen.insert(document.at("command").get<std::string>());
    }

    /// The schema's complaint; empty when there is none.
    std::string complaint() const {
        std::vector<std::string> words{TARVO_PYTHON, TARVOCTL_VALIDATE, TARVOCTL_SCHEMA};
        words.insert(words.end(), _files.begin(), _files.end());
        process run(words, _folder.path() / "errors");
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
        for (const auto& name : _seen)
            names.erase(name);
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
    std::vector<nlohmann::json> told;
    const auto take = [&] {
        told.push_back(nlohmann::json::parse(watch.program.read_line().value()));
    };
    take();
    driver.alloc("watched", 0x1000, "driver");
    take();
    driver.register_device(0, 6, 0);
    take();
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::next, 3);
    while (told.back().at("change") != "damaged")
        take();
    std::filesystem::remove(machine.shared_area());
    take();
    watch.end_by(SIGTERM);
    return told;
}

TEST(Schema, EveryCommandKeepsToIt) {
    sandbox machine(high);
    const temporary_folder folder;
    const std::string before = folder.path() / "before";
    client driver = machine.start();
    fill(machine, driver, before);
    validator documents;
    for (std::vector<std::string> words : commands) {
        for (std::string& word : words)
            word = word == "@before" ? before : word;
        words.emplace_back("--json");
        documents.add(json_of(tarvoctl(machine, words)));
    }
    // With damage to tell of.
    const auto link = area_offset::chunk(3) + area_offset::next;
    const int32_t sound = machine.area().view().i32(link);
    machine.writable_area().writer().i32(link, 3);
    const std::vector<std::vector<std::string>> looks{{"list"},
                                                      {"check"},
                                                      {"map"},
                                                      {"map", "--fit", "4K"},
                                                      {"devices"},
                                                      {"show", "rx_ring"},
                                                      {"find", "0x20000000"}};
    for (std::vector<std::string> words : looks) {
        words.emplace_back("--json");
        documents.add(json_of(tarvoctl(machine, words)));
    }
    machine.writable_area().writer().i32(link, sound);
    // And with chunks that overlap.
    const auto size = area_offset::chunk(2) + area_offset::size;
    machine.writable_area().writer().u32(size, 0x20000);
    for (std::vector<std::string> words : looks) {
        words.emplace_back("--json");
        documents.add(json_of(tarvoctl(machine, words)));
    }
    machine.writable_area().writer().u32(size, 0x10000);
    for (const auto& line : watched(machine, driver))
        documents.add(line);
    EXPECT_EQ(documents.complaint(), "");
    EXPECT_EQ(documents.missing(), std::set<std::string>{});
}

TEST(Schema, ADocumentThatBreaksItIsNoticed) {
    validator documents;
    documents.add({{"schema", 1},
                   {"command", "diff"},
                   {"consistent", true},
                   {"changes", 7},
                   {"damage", nlohmann::json::array()}});
    EXPECT_NE(documents.complaint().find("7 is not of type 'array'"), std::string::npos);
}

} // namespace
