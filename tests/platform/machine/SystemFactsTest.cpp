#include "MachineTree.h"
#include "ZqMemoryFacts.h"
#include "ZqSystemFacts.h"

#include <gmock/gmock.h>

TEST(MemoryFacts, AreInMebibytes) {
    struct Case {
        const char* text;
        int64 total, free, load;
    };
    const Case cases[] = {
        {"MemTotal:       24684096 kB\nMemFree: 1 kB\nMemAvailable:   23605720 kB\n", 24105, 23052, 4},
        {"MemTotal: 2047 kB\nMemFree: 1024 kB\n", 1, 1, 49}, // as before kernel 3.14
        {"MemTotal: 1024 kB\nMemAvailable: 4096 kB\n", 1, 1, 0},
        {"MemTotal: 9223372036854775807 kB\nMemAvailable: 0 kB\n", 9007199254740991, 0, 100},
        {"MemTotal: 9223372036854775808 kB\nMemAvailable: 1 kB\n", -1, -1, -1},
        {"MemTotal: 0 kB\nMemAvailable: 0 kB\n", -1, -1, -1},
        {"MemTotal: 4096 kB\n", -1, -1, -1},
        {"MemTotal: -4 kB\nMemFree: x kB\n:\n", -1, -1, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const MachineTree tree;
        tree.write("proc/meminfo", c.text);
        const ZqMemoryFacts facts = ZqMemoryFacts::read(tree.root());
        EXPECT_EQ(facts.totalMiB, c.total);
        EXPECT_EQ(facts.freeMiB, c.free);
        EXPECT_EQ(facts.loadPercent, c.load);
        EXPECT_EQ(facts.faults.empty(), c.total >= 0);
    }
}

TEST(SystemFacts, NameSystemAndKernel) {
    const std::pair<std::string, const char*> cases[] = {
        {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian\"\n",
         "Debian GNU/Linux 12 (bookworm)"},
        {"NAME=Fern\nVERSION=3\n", "Fern"},
        {"  PRETTY_NAME='it\\'\n", "it\\"},
        {R"(PRETTY_NAME="a \"b\" \$c \\ \`d\`")", "a \"b\" $c \\ `d`"},
        {"#PRETTY_NAME=no\nMY_PRETTY_NAME=no\nPRETTY_NAMES=no\nPRETTY_NAME=one\nPRETTY_NAME=two\r\n", "two"},
        {"PRETTY_NAME=\"open", "open"},
        {"PRETTY_NAME=end\\", "end\\"},
        {"PRETTY_NAME=\"\"\n", "Linux"},
        {"PRETTY_NAME=\xff\n", "\xEF\xBF\xBD"},
    };
    for (const auto& [text, name] : cases) {
        SCOPED_TRACE(text);
        const MachineTree tree;
        tree.write("usr/lib/os-release", text);
        tree.write("proc/sys/kernel/osrelease", "6.18.0-1-amd64\n");
        EXPECT_EQ(ZqSystemFacts::read(tree.root()).name, std::string(name) + " kernel 6.18.0-1-amd64");
        tree.write("etc/os-release", "PRETTY_NAME=Changed");
        EXPECT_EQ(ZqSystemFacts::read(tree.root()).name, "Changed kernel 6.18.0-1-amd64");
    }
    const MachineTree tree;
    EXPECT_EQ(ZqSystemFacts::read(tree.root()).name, "Unknown");
    EXPECT_EQ(ZqSystemFacts::read(tree.root()).faults.size(), 2U);
    tree.write("proc/sys/kernel/osrelease", "6.1\n");
    EXPECT_EQ(ZqSystemFacts::read(tree.root()).name, "Linux kernel 6.1");
    tree.remove("proc");
    tree.write("etc/os-release", "PRETTY_NAME=Fern\n");
    EXPECT_EQ(ZqSystemFacts::read(tree.root()).name, "Fern");
    // A file without an end.
    tree.write("etc/os-release", std::string((16 << 20) + 1, 'x'));
    EXPECT_EQ(ZqSystemFacts::read(tree.root()).name, "Unknown");
    EXPECT_THAT(ZqSystemFacts::read(tree.root()).faults.front().str(),
                testing::HasSubstr("etc/os-release' is too large"));
}
