#include "area/repair.hpp"

#include "area/raw_records.hpp"
#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_file.hpp"
#include "host/cross_process_lock.hpp"
#include "host/mappings.hpp"
#include "output/confirm.hpp"
#include "output/json.hpp"
#include "output/place_text.hpp"
#include "output/process_text.hpp"
#include "output/text.hpp"

#include <chrono>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace tarvoctl {

namespace {

struct repair_options {
    area_source source;
    std::string backup;
    bool cma = false;
    bool dry_run = false;
    bool force = false;
    bool partly = false;
    bool yes = false;
    bool json = false;
};

/// What repair finds out before it changes anything.
struct planned_repair {
    const shared_area_t& area; ///< as it is
    repair_plan plan;
    std::vector<finding> rest; ///< what stays broken

    bool makes_whole() const { return plan.doubts.empty() && rest.empty(); }
};

std::string path_of(const repair_options& options) {
    return options.source.is_live() ? find_site().area : options.source.file;
}

/// Beside the area, named after the moment and, as one has room for several repairs, the process.
std::string backup_path(const repair_options& options) {
    if (!options.backup.empty()) {
        return options.backup;
    }
    return fmt::format("{}.before-repair-{}-{}", path_of(options),
                       file_time_text(std::chrono::system_clock::now()), ::getpid());
}

std::string hex_of(const std::vector<uint8_t>& bytes) {
    constexpr size_t most_shown = 8;
    std::string made;
    for (size_t i = 0; i < bytes.size() && i < most_shown; ++i) {
        made += fmt::format("{:02x}", bytes[i]);
    }
    return bytes.size() > most_shown ? made + "..." : made;
}

void print_plan(const repair_plan& plan, const shared_area_t& area) {
    for (const auto& edit : plan.edits) {
        const std::string change = edit.zeroes()
                                       ? "zero " + counted(edit.before.size(), "byte")
                                       : hex_of(edit.before) + " -> " + hex_of(edit.after);
        fmt::print("offset {:>8}  {}  {}: {}\n", edit.offset, change, place_text(edit.where, area),
                   shown(edit.why));
    }
    for (const auto& doubt : plan.doubts) {
        fmt::print("left as it is: {}: {}\n", place_text(doubt.where, area), shown(doubt.why));
    }
}

/// What would still be broken after the plan.
std::vector<finding> broken_after(const repair_plan& plan, const shared_area_t& area,
                                  const check_options& options) {
    const auto planned = std::make_unique<shared_area_t>(area);
    apply(plan, *planned);
    std::vector<finding> findings = check_area(*planned, options);
    std::erase_if(findings, [](const finding& one) { return one.cls != finding_class::broken; });
    return findings;
}

void print_rest(const std::vector<finding>& rest, const shared_area_t& area) {
    for (const auto& each : rest) {
        fmt::print("stays broken: {}\n", finding_text(each, area));
        if (each.unlisted > 0) {
            fmt::print("              and {} more like it\n", each.unlisted);
        }
    }
}

json json_edit(const repair_edit& edit, const shared_area_t& area) {
    json made{{"offset", edit.offset},
              {"bytes", edit.before.size()},
              {"before", hex_of(edit.before)},
              {"after", hex_of(edit.after)}};
    made.update(json_place(edit.where, area));
    made["text"] = edit.why;
    return made;
}

json json_doubt(const repair_doubt& doubt, const shared_area_t& area) {
    json made = json_place(doubt.where, area);
    made["text"] = doubt.why;
    return made;
}

/// `backup` is empty where nothing was changed.
void print_as_json(const planned_repair& planned, const std::string& backup) {
    json document = json_document("repair");
    document["edits"] = json_list(
        planned.plan.edits, [&](const repair_edit& each) { return json_edit(each, planned.area); });
    document["left"] = json_list(planned.plan.doubts, [&](const repair_doubt& each) {
        return json_doubt(each, planned.area);
    });
    document["stays_broken"] = json_findings(planned.rest, planned.area);
    document["repaired"] = !backup.empty();
    document["backup"] = backup.empty() ? json(nullptr) : json(backup);
    print_json(document);
}

/// Processes that have the library started may be in the middle of a change. Those that not even
/// root can look into are reported, but prevent nothing: they would prevent every repair.
void refuse_while_in_use(const repair_options& options) {
    if (!options.source.is_live() || options.force) {
        return;
    }
    const mapped_memory memory = mappings_of(find_site());
    process_table processes;
    const std::string unseen = memory.is_complete() ? "" : unseen_text(memory, processes);
    if (!memory.users.empty()) {
        throw failure{
            exit_status::finding,
            fmt::format("not repaired, because the library is started in other processes: {}; "
                        "end them first, or --force",
                        processes_text(memory.users, processes))};
    }
    if (memory.root_would_see_more()) {
        throw failure{exit_status::finding,
                      fmt::format("not repaired, because the library may be started in other "
                                  "processes: {}, or --force",
                                  unseen)};
    }
    if (!unseen.empty()) {
        fmt::print(stderr, "tarvoctl: {}\n", unseen);
    }
}

/// Repaired lists look whole: the next repair would take what was left alone for leftovers.
void refuse_undecided(const repair_options& options, const repair_plan& plan) {
    if (plan.doubts.empty() || options.partly) {
        return;
    }
    throw failure{
        exit_status::damaged,
        fmt::format("not repaired: a person has to decide first about {}, because the next "
                    "repair could not tell them from leftovers; --partly repairs the rest "
                    "all the same",
                    counted(plan.doubts.size(), "place"))};
}

/// Makes the changes, unless the area is no longer what they were planned for. Nothing else is done
/// under the lock: everybody waits for it.
void apply_under_lock(const repair_options& options, const repair_plan& plan,
                      const shared_area_t& planned_for, const mapped_area& mapped) {
    const cross_process_lock lock{options.source.is_live() ? find_site().locks
                                                           : std::vector<std::string>{},
                                  options.source.timeout};
    if (!same_bytes(mapped.area(), planned_for)) {
        throw failure{exit_status::finding, "not repaired: the area has changed since the plan was "
                                            "made; run it again"};
    }
    apply(plan, mapped.area());
}

/// Returns the file that holds the area as it was.
std::string carry_out(const repair_options& options, const repair_plan& plan,
                      const shared_area_t& planned_for) {
    const mapped_area mapped{path_of(options)};
    mapped.touch();
    std::string backup = backup_path(options);
    write_area({backup, existing_file::refused, "--backup names another",
                "--backup FILE puts it where there is room"},
               planned_for);
    try {
        apply_under_lock(options, plan, planned_for, mapped);
    } catch (const failure&) {
        ::unlink(backup.c_str()); // of an area that is as it was
        throw;
    }
    return backup;
}

/// Makes the changes, unless something prevents them or nobody agrees.
std::string carry_out_if_agreed(const repair_options& options, const planned_repair& planned) {
    refuse_undecided(options, planned.plan);
    refuse_while_in_use(options);
    const std::string question =
        fmt::format("make {}?", counted(planned.plan.edits.size(), "change"));
    if (!options.yes && !confirmed(question)) {
        throw failure{exit_status::finding, "not repaired: nobody said yes; --yes does"};
    }
    return carry_out(options, planned.plan, planned.area);
}

void print_end(const planned_repair& planned, const std::string& backup) {
    if (!backup.empty()) {
        fmt::print("{}; {} holds the area as it was\n",
                   planned.makes_whole() ? "repaired" : "changed, but still broken", backup);
    } else if (planned.plan.edits.empty()) {
        fmt::print("{}\n",
                   planned.makes_whole() ? "nothing to repair" : "repair has nothing to change");
    }
    if (!planned.rest.empty()) {
        fmt::print("to get rid of what stays broken, {}\n",
                   remedy_text(planned.rest, planned.area));
    }
}

exit_status repair(const repair_options& options) {
    if (!options.source.is_live()) {
        require_changeable(options.source.file);
    }
    const auto area = read_area(options.source);
    planned_repair planned{*area, plan_repair(*area), {}};
    planned.rest = broken_after(planned.plan, *area, options_for(options.source, options.cma));
    if (!options.json) {
        print_plan(planned.plan, *area);
        print_rest(planned.rest, *area);
    }
    const bool only_shown = options.dry_run || planned.plan.edits.empty();
    const std::string backup = only_shown ? "" : carry_out_if_agreed(options, planned);
    if (options.json) {
        print_as_json(planned, backup);
    } else {
        print_end(planned, backup);
    }
    if (!planned.makes_whole()) {
        return exit_status::damaged;
    }
    return only_shown && !planned.plan.edits.empty() ? exit_status::finding : exit_status::good;
}

} // namespace

template <>
action set_up<entry_of("repair")>(command_words& words) {
    const auto options = std::make_shared<repair_options>();
    words.optional_word("FILE", options->source.file, "a copy to repair in place of the live area");
    words.flag("--cma", options->cma, "the copy is of a CMA region: chunks may overlap");
    words.flag("-n,--dry-run", options->dry_run, "only show the plan");
    words.flag("-y,--yes", options->yes, "do not ask");
    words.flag("--force", options->force, "also while processes use it, or may");
    words.flag("--partly", options->partly,
               "also where something is left for a person to decide: repair the rest");
    words.option("--backup", "FILE", options->backup, "where the area is kept as it was");
    words.json(options->json);
    words.timeout(options->source.timeout);
    return [options] { return repair(*options); };
}

} // namespace tarvoctl
