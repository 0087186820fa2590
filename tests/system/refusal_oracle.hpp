#pragma once

#include "iommu_scene.hpp"
#include "texts.hpp"

#include <algorithm>
#include <utility>

/// How the driver, or the file system before it, answers one request.
struct request_answer {
    enum class meaning { accepted, device_gone, refused };

    const char* name; ///< as rules have it; empty: nothing is refused
    int error;
    const char* text; ///< the system's
    meaning means;
    bool at_open;
    bool silent;
};

using meaning = request_answer::meaning;

inline const std::vector<request_answer> all_answers{
    {"", 0, "", meaning::accepted, false, true},
    {"ENODEV", 19, "No such device", meaning::device_gone, false, false},
    {"EUNATCH", 49, "Protocol driver not attached", meaning::device_gone, false, false},
    {"ENOSYS", 38, "Function not implemented", meaning::accepted, false, true},
    {"EIO", 5, "Input/output error", meaning::refused, false, false},
    {"EINVAL", 22, "Invalid argument", meaning::refused, false, false},
    {"ENOENT", 2, "No such file or directory", meaning::refused, true, false},
};

/// One call of the library.
struct step {
    enum class call { alloc, free, enter, leave };

    call what;
    std::string chunk;
    uint32_t bytes = 0;
    pci_device device{};

    std::string command() const {
        const std::string triple = std::to_string(device.domain) + " " +
                                   std::to_string(device.bus) + " " + std::to_string(device.devfn);
        switch (what) {
        case call::alloc:
            return "alloc " + chunk + " " + std::to_string(bytes) + " test";
        case call::free:
            return "free " + chunk;
        case call::enter:
            return "register " + triple;
        case call::leave:
            return "unregister " + triple;
        }
        return {};
    }
};

/// Says what each call must answer, print, send and leave behind while at most one request is
/// answered out of the ordinary. Knows only what the tests do: chunks are placed one after the
/// other, names differ, and the device with record 0 stays where it is.
class refusal_oracle {
  public:
    explicit refusal_oracle(const world& chosen) : _world(chosen), _end(chosen.start) {}

    /// The nth request from now on is answered so.
    void answer(const request_answer& given, int nth) {
        _given = &given;
        _due = nth;
    }

    /// The reply, or "ended" when the process ends by an assertion.
    std::string reply_to(const step& next) {
        switch (next.what) {
        case step::call::alloc:
            return alloc(next.chunk, next.bytes);
        case step::call::free:
            return std::to_string(free(next.chunk));
        case step::call::enter:
            return std::to_string(enter(next.device));
        case step::call::leave:
            return std::to_string(leave(next.device));
        }
        return {};
    }

    /// What was printed since this was last asked for.
    std::string said() { return std::exchange(_said, {}); }
    const texts& events() const { return _events; }
    const texts& cma_commands() const { return _commands; }

    /// Chunks as "NAME:RECORD,RECORD", devices as "RECORD:BUS:online", each in its list's order.
    texts records() const {
        texts all;
        for (const chunk& one : _chunks) {
            all.push_back(shown(one.name, one.refs));
        }
        for (const device& one : _devices) {
            all.push_back(shown(one.record, one.triple.bus, one.online));
        }
        return all;
    }
    static std::string shown(std::string name, const numbers& refs) {
        name += ":";
        for (const int ref : refs) {
            name += std::to_string(ref) + ",";
        }
        return name;
    }
    static std::string shown(int record, uint32_t bus, bool online) {
        return std::to_string(record) + ":" + std::to_string(bus) + (online ? ":1" : ":0");
    }

  private:
    struct chunk {
        std::string name;
        chunk_place place;
        numbers refs;
    };
    struct device {
        int record;
        pci_device triple;
        bool online;
    };

    meaning request(const char* op, const chunk& on, device& by) {
        const request_answer& got = --_due == 0 ? *_given : all_answers.front();
        const std::string error = got.error == 0 ? "" : std::string(" ") + got.name;
        if (got.at_open) {
            _events.push_back("sysfs open w" + error);
            _said += std::string("tarvo: failed to open sysfs file: ") + got.text + "\n";
        } else {
            const iommu_request line = chunk_request(op, by.triple, _world, on.place);
            _events.insert(
                _events.end(),
                {"sysfs open w", "sysfs write" + error + ": " + line.line(), "sysfs close"});
            _said += got.silent ? "" : line.refusal(got.error);
        }
        _said += got.silent ? "" : chunk_failure(op, by.triple, _world, on.place);
        by.online = by.online && got.means != meaning::device_gone;
        return got.means;
    }

    void say_refused(const char* doing) {
        _said += std::string("Error IOMMU ") + doing + " chunk " + _given->text + "\n";
    }

    static void add(chunk& to, int record) {
        if (std::find(to.refs.begin(), to.refs.end(), record) == to.refs.end()) {
            to.refs.push_back(record);
        }
    }

    bool map_for_all(chunk& fresh) {
        for (device& one : _devices) {
            if (!one.online) {
                continue;
            }
            const meaning answer = request("map", fresh, one);
            if (answer == meaning::accepted) {
                add(fresh, one.record);
            } else if (answer == meaning::refused) {
                say_refused("mapping");
                unmap_from_all(fresh);
                return false;
            }
        }
        return true;
    }

    bool unmap_from_all(chunk& doomed) {
        bool good = true;
        for (const int record : std::exchange(doomed.refs, {})) {
            const auto holder =
                std::find_if(_devices.begin(), _devices.end(), [record](const device& one) {
                    return one.record == record && one.online;
                });
            if (holder != _devices.end() && request("unmap", doomed, *holder) == meaning::refused) {
                say_refused("unmapping");
                good = false;
            }
        }
        return good;
    }

    bool map_all_for(device& fresh) {
        for (chunk& one : _chunks) {
            const meaning answer = request("map", one, fresh);
            if (answer == meaning::accepted) {
                add(one, fresh.record);
            } else if (answer == meaning::refused) {
                say_refused("mapping");
                unmap_all_from(fresh);
                return false;
            }
        }
        return true;
    }

    bool unmap_all_from(device& doomed) {
        bool good = true;
        for (chunk& one : _chunks) {
            const auto ref = std::find(one.refs.begin(), one.refs.end(), doomed.record);
            if (ref == one.refs.end() || !doomed.online) {
                continue;
            }
            const meaning answer = request("unmap", one, doomed);
            if (answer == meaning::accepted) {
                one.refs.erase(ref);
            }
            good = good && answer != meaning::refused;
        }
        return good;
    }

    std::string alloc(const std::string& name, uint32_t bytes) {
        if (_world.cma) {
            _commands.push_back("a " + name + " " + hex(bytes) + "\n");
        }
        _chunks.push_back({name, {_end, bytes}, {}});
        if (map_for_all(_chunks.back())) {
            _end += bytes;
            return "0x" + hex(_world.dma(_chunks.back().place.pa));
        }
        // The record is cleared before it is unmapped: its end lies before address 0. The driver of
        // a "CMA" region is not asked.
        _chunks.pop_back();
        _end += _world.cma ? bytes : 0;
        _said += assertion("uint32_t tarvo_pa_to_dma(uint64_t)",
                           "pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa");
        return "ended";
    }

    int free(const std::string& name) {
        const auto doomed = std::find_if(_chunks.begin(), _chunks.end(),
                                         [&](const chunk& one) { return one.name == name; });
        if (_world.cma) {
            _commands.push_back("r " + name + " " + hex(doomed->place.size) + "\n");
        }
        if (!unmap_from_all(*doomed)) {
            return -1;
        }
        _chunks.erase(doomed);
        return 0;
    }

    std::vector<device>::iterator find(const pci_device& triple) {
        return std::find_if(_devices.begin(), _devices.end(), [&](const device& one) {
            return one.triple.domain == triple.domain && one.triple.bus == triple.bus &&
                   one.triple.devfn == triple.devfn;
        });
    }

    int free_record() const {
        int record = 0;
        while (std::any_of(_devices.begin(), _devices.end(),
                           [record](const device& one) { return one.record == record; })) {
            record++;
        }
        return record;
    }

    int enter(const pci_device& triple) {
        auto known = find(triple);
        if (known == _devices.end()) {
            known = _devices.insert(known, {free_record(), triple, true});
        }
        known->online = true;
        if (map_all_for(*known)) {
            return 0;
        }
        _said += "tarvo: tarvo_register_device: failed to map chunk\n";
        return -1;
    }

    int leave(const pci_device& triple) {
        const auto known = find(triple);
        if (known == _devices.end()) {
            _said += "tarvo: Device not registered\n";
            return -2;
        }
        if (!unmap_all_from(*known)) {
            _said += "tarvo: Error unmapping all chunks\n";
            return -1;
        }
        _devices.erase(known);
        return 0;
    }

    world _world;
    uint64_t _end; ///< of the memory in use
    std::vector<chunk> _chunks;
    std::vector<device> _devices;
    const request_answer* _given = &all_answers.front();
    int _due = 0;
    std::string _said;
    texts _events;
    texts _commands;
};
