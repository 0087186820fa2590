#include "watch.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace watch {

namespace {

struct order {
    std::string name;
    int error;
    unsigned calls_left; ///< counts down to the call that fails; 0: all fail
};

bool watching = false;
long page_bytes = 0;

/// Reached only while watching, and so never before the client's own objects are made.
std::vector<order>& orders() {
    static std::vector<order> all;
    return all;
}

std::string& records() {
    static std::string all;
    return all;
}

} // namespace

void begin() {
    watching = true;
}

void end() {
    watching = false;
}

bool on() {
    return watching;
}

void fail(std::string_view name, int error, unsigned nth) {
    orders().push_back({std::string(name), error, nth});
}

void fail_nothing() {
    orders().clear();
}

bool refuses(std::string_view name) {
    const auto mine = std::find_if(orders().begin(), orders().end(),
                                   [name](const order& o) { return o.name == name; });
    if (mine == orders().end()) {
        return false;
    }
    const bool for_ever = mine->calls_left == 0;
    if (!for_ever && --mine->calls_left > 0) {
        return false;
    }
    const int error = mine->error;
    if (!for_ever) {
        orders().erase(mine);
    }
    errno = error;
    return true;
}

void pretend_page_bytes(long bytes) {
    page_bytes = bytes;
}

long pretended_page_bytes() {
    return page_bytes;
}

void record(std::string_view name, const std::vector<std::string>& arguments,
            const std::string& result) {
    const int librarys_errno = errno;
    std::string& all = records();
    all += all.empty() ? "" : " ";
    all += name;
    char before = '(';
    for (const std::string& argument : arguments) {
        all += before + argument;
        before = ',';
    }
    all += arguments.empty() ? "()=" : ")=";
    all += result;
    errno = librarys_errno;
}

std::string take_records() {
    return std::exchange(records(), {});
}

} // namespace watch
