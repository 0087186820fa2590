#pragma once

#include "prediction.hpp"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace model {

/// Chance, the same for the same seed on every machine.
class chance {
  public:
    explicit chance(uint64_t seed) : _numbers(seed) {}

    /// From 0, below `count`.
    uint64_t below(uint64_t count) { return _numbers() % count; }
    bool one_in(uint64_t count) { return below(count) == 0; }

    template <typename List>
    const auto& any_of(const List& list) {
        return list[below(list.size())];
    }
    template <typename T>
    T any_of(std::initializer_list<T> list) {
        return list.begin()[below(list.size())];
    }

  private:
    std::mt19937_64 _numbers;
};

/// Where the steps of a seed are played. `processes` 0: as many as the seed says, 1 to 4.
playground choose_playground(const std::string& world_name, uint64_t seed, int processes);

/// Makes up steps that suit what the model says there is.
class generator {
  public:
    explicit generator(uint64_t seed) : _chance(seed) {}

    /// An applicable step.
    step next(const prediction& now);

  private:
    step propose(const prediction& now);
    step propose_for(const prediction& now, int who);
    bool is_worthwhile(const prediction& now, const step& one);

    std::vector<std::string> alloc(const prediction& now);
    std::vector<std::string> map(const prediction& now);
    std::vector<std::string> unmap(const prediction& now, const process_state& caller);
    std::vector<std::string> touch(const process_state& caller, bool writes);
    std::string name(const prediction& now);
    std::string listed_name(const prediction& now);
    std::string creator();
    uint64_t size(const prediction& now);
    uint64_t dma(const prediction& now);
    std::string label(const process_state& caller);
    std::vector<std::string> device_words();
    std::string room(uint64_t line_length);

    chance _chance;
    unsigned _labels = 0;
};

/// A few rules for the kernel driver, to be put in place of those before.
std::vector<std::string> choose_rules(chance& dice, const machine_state& machine);

struct pci_triple {
    uint32_t domain;
    uint32_t bus;
    uint32_t devfn;
};
const std::vector<pci_triple>& all_devices();
std::vector<std::string> all_names(const world& where);

} // namespace model
