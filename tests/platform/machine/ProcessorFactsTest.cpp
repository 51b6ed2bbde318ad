#include "MachineTree.h"
#include "ZqProcessorFacts.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string> processorsOf(const MachineTree& tree) {
    std::vector<std::string> all;
    for (const auto& processor : ZqProcessorFacts::read(tree.root()).processors)
        all.push_back(processor.name.str() + ": " + std::to_string(processor.nCores));
    return all;
}

/// One logical processor of an x86 machine, as cpuinfo has it.
std::string logical(int number, int package, int core, const std::string& name = "Fast(R)  CPU") {
    return "processor\t: " + std::to_string(number) + "\nmodel\t\t: 17\nmodel name\t: " + name +
           "\nphysical id\t: " + std::to_string(package) + "\ncore id\t\t: " + std::to_string(core) +
           "\ncpu cores\t: 99\nflags\t\t: fpu: x\n\n";
}

void topology(const MachineTree& tree, int number, const std::string& package, const std::string& threads,
              const char* file = "core_cpus_list") {
    const std::string folder = "sys/devices/system/cpu/cpu" + std::to_string(number) + "/topology/";
    tree.write(folder + "physical_package_id", package + "\n");
    tree.write(folder + file, threads + "\n");
}

} // namespace

TEST(ProcessorFacts, CountsTheCoresOfEachSocket) {
    const MachineTree tree;
    std::string info;
    // Two sockets with two cores of two threads each; the numbers of cores are the same in both.
    for (int i = 0; i < 8; ++i)
        info += logical(i, i / 2 % 2, i % 2, i / 2 % 2 == 0 ? "Fast(R)  CPU" : "Other");
    tree.write("proc/cpuinfo", info);
    EXPECT_THAT(processorsOf(tree), ElementsAre("Fast(R) CPU: 2", "Other: 2"));

    // The topology is what counts: here are four cores in the first socket, two dies with equal numbers.
    // Number 10 comes after number 2, one that is switched off has no topology, and what is no processor
    // isn't one.
    const std::pair<int, const char*> first[] = {{0, "0,4"}, {4, "0,4"}, {1, "1"}, {2, "2"}, {10, "10"}};
    for (const auto& [number, threads] : first)
        topology(tree, number, "0", threads);
    topology(tree, 3, "1", "3", "thread_siblings_list");
    tree.write("sys/devices/system/cpu/cpu7/online", "0\n");
    tree.write("sys/devices/system/cpu/cpufreq/boost", "1\n");
    tree.write("sys/devices/system/cpu/possible", "0-10\n");
    EXPECT_THAT(processorsOf(tree), ElementsAre("Fast(R) CPU: 4", "Other: 1"));
    tree.remove("proc/cpuinfo");
    EXPECT_THAT(processorsOf(tree), ElementsAre("Unknown: 4", "Unknown: 1"));
    EXPECT_THAT(ZqProcessorFacts::read(tree.root()).faults, Not(IsEmpty()));
}

TEST(ProcessorFacts, NamesProcessorsWithoutAName) {
    const std::string arm = "processor\t: 0\nBogoMIPS\t: 108\nCPU implementer\t: 0x41\nCPU part\t: 0xd08\n\n"
                            "processor\t: 1\nBogoMIPS\t: 108\nCPU implementer\t: 0x41\nCPU part\t: 0xd0c\n\n";
    struct Case {
        std::string info, board;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {arm, "", {"CPU implementer 0x41, part 0xd08: 2"}},
        {arm, std::string("Fern Board 4\0", 13), {"Fern Board 4: 2"}},
        {arm + "Hardware\t: Chip 2711\nModel\t\t: Board 4\n", "x", {"Chip 2711: 2"}},
        {"Processor\t: old\nprocessor\t: 0\nHardware\t: \nModel : Board 4\n", "", {"Board 4: 1"}},
        {"processor\t: 0\nhart\t: 1\nuarch\t: fern,u74\n\nprocessor\t: 1\nhart\t: 2\n", "", {"fern,u74: 2"}},
        {"processor\t: 0\ncpu\t\t: POWER9\n", "", {"POWER9: 1"}},
        {"processor\t: 0\n", "", {"Unknown: 1"}},
        {"processor\t: 0\nmodel name\t: a\x1b[2J\xff\n", "", {"a\x1b[2J\xEF\xBF\xBD: 1"}},
        {"processor\t: 99999999999999999999\nmodel name : x\n", "", {}},
        {"", "", {}},
        {std::string(100, '\0'), "", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.info);
        const MachineTree tree;
        tree.write("proc/cpuinfo", c.info);
        if (!c.board.empty()) tree.write("proc/device-tree/model", c.board);
        EXPECT_EQ(processorsOf(tree), c.expected);
        EXPECT_EQ(ZqProcessorFacts::read(tree.root()).faults.empty(), !c.expected.empty());
    }
    // Old kernels for ARM have -1 for a socket.
    const MachineTree tree;
    tree.write("proc/cpuinfo", arm);
    topology(tree, 0, "-1", "0");
    topology(tree, 1, "-1", "1");
    EXPECT_THAT(processorsOf(tree), ElementsAre("CPU implementer 0x41, part 0xd08: 2"));
}
