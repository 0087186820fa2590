#include "tarvo/chunk.hpp"
#include "tarvo/device.hpp"
#include "tool.hpp"

#include <gtest/gtest.h>

namespace limits_test {

// What C++, tarvoctl and Python take for a device, a name and a size is the same.

namespace {

using answers = std::vector<std::string>;

const std::string refused = "refused";
const std::string accepted = "accepted";

answers python_of(sandbox& machine, const std::string& reading, const answers& texts) {
    const answers python{"env",
                         "PYTHONPATH=" TARVO_PYTHON_PATH,
                         "PYTHONDONTWRITEBYTECODE=1",
                         TARVO_PYTHON,
                         "-c",
                         "import sys\n"
                         "from tarvo import BadArgument, Device, _checks\n"
                         "for text in sys.argv[1:]:\n"
                         "    try:\n"
                         "        print(" +
                             reading +
                             ")\n"
                             "    except BadArgument:\n"
                             "        print('refused')\n"};
    const auto outcome = run_program(machine, python + texts);
    EXPECT_EQ(outcome.errors, "");
    return lines_of(outcome.output);
}

TEST(limits, DevicesAreReadAndWrittenAlikeInAllLanguages) {
    sandbox machine(low);
    machine.start().alloc("any", 0x1000);
    const answers texts{"0000:03:00.0", "03:00.1",      "1:3A:1f.7",    "ffffffff:fffffff0:0.0",
                        "0:3:000.00",   "03:00",        "03:20.0",      "03:00.8",
                        ":03:00.0",     "0:0:03:00.0",  "0x0:03:00.0",  "100000000:03:00.0",
                        "03:00.0 ",     "0000:-3:00.0", "0000:03.00.0", "3"};
    answers cpp;
    answers tool;
    for (const std::string& text : texts) {
        const auto device = tarvo::device::parse(text);
        cpp.emplace_back(device ? device->text().c_str() : refused);
        const std::string errors = tarvoctl(machine, {"unregister", text}).errors;
        const std::string before = "tarvoctl: ";
        const size_t end = errors.find(" is not registered");
        tool.push_back(
            end == std::string::npos ? refused : errors.substr(before.size(), end - before.size()));
    }
    EXPECT_EQ(cpp[1], "0000:03:00.1");
    EXPECT_EQ(cpp.back(), refused);
    EXPECT_EQ(tool, cpp);
    EXPECT_EQ(python_of(machine, "Device.parse(text)", texts), cpp);
}

TEST(limits, NamesAreTakenAlikeInAllLanguages) {
    sandbox machine(low);
    const answers names{
        "",   "a",   std::string(49, 'n'), std::string(50, 'n'), "__HEAD", "__TAIL", "__head", "a ",
        " a", "\xff"};
    answers cpp;
    answers tool;
    for (const std::string& name : names) {
        cpp.push_back(tarvo::detail::check_name(name) ? accepted : refused);
        const auto outcome = tarvoctl(machine, {"alloc", name, "0"});
        EXPECT_EQ(outcome.status, 2);
        tool.push_back(outcome.errors.starts_with("tarvoctl: SIZE '0'") ? accepted : refused);
    }
    EXPECT_EQ(cpp[2], accepted);
    EXPECT_EQ(cpp[3], refused);
    EXPECT_EQ(tool, cpp);
    EXPECT_EQ(python_of(machine, "_checks.c_name(text) and 'accepted'", names), cpp);
}

TEST(limits, SizesAreTakenAlikeInAllLanguages) {
    sandbox machine(low);
    machine.start().alloc("any", 0x1000);
    const answers sizes{"0", "1", "4097", "2147483648", "2147483649", "4294963200", "4294967296"};
    answers cpp;
    answers tool;
    for (const std::string& size : sizes) {
        const tarvo::bytes bytes(std::stoull(size));
        cpp.push_back(tarvo::detail::check_size(bytes) ? accepted : refused);
        const auto outcome = tarvoctl(machine, {"map", "--fit", size});
        tool.push_back(outcome.status == 2 ? refused : accepted);
    }
    EXPECT_EQ(cpp[3], accepted);
    EXPECT_EQ(cpp[4], refused);
    EXPECT_EQ(tool, cpp);
    EXPECT_EQ(python_of(machine, "_checks.chunk_size(int(text)) and 'accepted'", sizes), cpp);
}

} // namespace

} // namespace limits_test
