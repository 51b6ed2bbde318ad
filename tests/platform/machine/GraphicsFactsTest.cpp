#include "MachineTree.h"
#include "ZqGraphicsFacts.h"

#include <gmock/gmock.h>

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* NAMES =
    "# names\n10de  Fern Corporation\n\t2684  F102 [Frond 90]\n\t\t10de 16f4  Edition\n"
    "1002  Moss\n";

struct Shown {
    std::vector<std::string> cards, faults;
};

Shown cardsOf(const MachineTree& tree) {
    Shown shown;
    const ZqGraphicsFacts facts = ZqGraphicsFacts::read(tree.root());
    for (const auto& card : facts.cards)
        shown.cards.push_back(card.name.str() + ", " + card.driver.str() + ", " +
                              std::to_string(card.memory));
    for (const SxString& fault : facts.faults)
        shown.faults.push_back(fault.str());
    return shown;
}

/// A PCI device; its driver may be empty.
void pci(const MachineTree& tree, const std::string& at, const std::string& kind, const std::string& vendor,
         const std::string& device, const std::string& driver) {
    const std::string folder = "sys/devices/pci0000:00/" + at;
    tree.link("sys/bus/pci/devices/" + at, folder);
    tree.write(folder + "/class", kind + "\n");
    tree.write(folder + "/vendor", vendor + "\n");
    tree.write(folder + "/device", device + "\n");
    if (driver.empty()) return;
    tree.link(folder + "/driver", "sys/bus/pci/drivers/" + driver);
    std::filesystem::create_directories(tree.path("sys/module/" + driver));
    if (!std::filesystem::exists(tree.path("sys/bus/pci/drivers/" + driver + "/module")))
        tree.link("sys/bus/pci/drivers/" + driver + "/module", "sys/module/" + driver);
}

} // namespace

TEST(GraphicsFacts, NameCardDriverAndMemory) {
    const MachineTree tree;
    tree.write("usr/share/misc/pci.ids", NAMES);
    tree.write("proc/sys/kernel/osrelease", "6.18.0\n");
    pci(tree, "0000:01:00.0", "0x030000", "0x10de", "0x2684", "fern");
    tree.write("sys/module/fern/version", "535.183.01\n");
    pci(tree, "0000:01:00.1", "0x040300", "0x10de", "0x22ba", "snd"); // its sound
    pci(tree, "0000:03:00.0", "0x038000", "0x1002", "0x744c", "amdgpu");
    tree.write("sys/devices/pci0000:00/0000:03:00.0/mem_info_vram_total", "25753026560\n");
    pci(tree, "0000:04:00.0", "0x030000", "0xabcd", "0x0001", ""); // neither known nor served
    // A card that has a PCI device isn't told twice.
    tree.link("sys/class/drm/card0/device", "sys/devices/pci0000:00/0000:01:00.0");
    tree.link("sys/class/drm/renderD128/device", "sys/devices/pci0000:00/0000:01:00.0");
    tree.write("sys/class/drm/card0-HDMI-A-1/status", "connected\n");
    const std::vector<std::string> onPci = {"Fern Corporation F102 [Frond 90], fern 535.183.01, 0",
                                            "Moss Device 744c, amdgpu 6.18.0, 25753026560",
                                            "Device abcd:0001, Unknown, 0"};
    Shown shown = cardsOf(tree);
    EXPECT_EQ(shown.cards, onPci);
    EXPECT_THAT(shown.faults, IsEmpty());

    // A damaged list, or none, takes the names, and not the cards.
    tree.write("usr/share/misc/pci.ids", "10de  Fern\n\tnonsense\n");
    shown = cardsOf(tree);
    EXPECT_EQ(shown.cards.size(), 3U);
    EXPECT_EQ(shown.cards.front(), "Device 10de:2684, fern 535.183.01, 0");
    ASSERT_FALSE(shown.faults.empty());
    EXPECT_THAT(shown.faults.front(), AllOf(HasSubstr("Getting GPU Name failed with error: "),
                                            HasSubstr(tree.path("usr/share/misc/pci.ids"))));
    tree.remove("usr");
    shown = cardsOf(tree);
    EXPECT_EQ(shown.cards.front(), "Device 10de:2684, fern 535.183.01, 0");
    EXPECT_THAT(shown.faults, IsEmpty());

    // A device that hides its id.
    tree.write("sys/devices/pci0000:00/0000:04:00.0/vendor", "0xzz\n");
    shown = cardsOf(tree);
    EXPECT_EQ(shown.cards.back(), "Unknown, Unknown, 0");
    EXPECT_THAT(shown.faults, ElementsAre(HasSubstr("Getting GPU Name failed with error: ")));
}

TEST(GraphicsFacts, HaveCardsOfBoardsToo) {
    const MachineTree tree;
    EXPECT_THAT(cardsOf(tree).cards, IsEmpty());
    EXPECT_THAT(cardsOf(tree).faults, IsEmpty());
    tree.write("proc/sys/kernel/osrelease", "6.6\n");
    tree.link("sys/class/drm/card1/device", "sys/devices/platform/soc/gpu");
    tree.link("sys/class/drm/card2/device", "sys/devices/platform/soc/gpu");
    tree.link("sys/devices/platform/soc/gpu/driver", "sys/bus/platform/drivers/vc4-drm");
    tree.write("sys/devices/platform/soc/gpu/uevent",
               "DRIVER=vc4-drm\nOF_NAME=gpu\nOF_COMPATIBLE_0=fern,vc5\n");
    tree.link("sys/class/drm/card10/device", "sys/devices/faux/vkms");
    tree.link("sys/devices/faux/vkms/driver", "sys/bus/faux/drivers/vkms");
    tree.link("sys/class/drm/card11/device", "sys/devices/bare");
    tree.write("sys/class/drm/version", "drm 1.1.0\n");
    EXPECT_THAT(cardsOf(tree).cards,
                ElementsAre("fern,vc5, vc4-drm 6.6, 0", "vkms, vkms 6.6, 0", "Unknown, Unknown, 0"));
}
