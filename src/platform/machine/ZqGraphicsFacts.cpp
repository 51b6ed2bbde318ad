#include "ZqGraphicsFacts.h"

#include "SxException.h"
#include "ZqFactFiles.h"
#include "ZqPciNames.h"

#include <charconv>
#include <optional>
#include <set>
#include <utility>

namespace {

/// A number as sysfs writes it: "0x10de".
std::optional<int64> hexNumber(std::string_view text) {
    if (!text.starts_with("0x")) return std::nullopt;
    int64 value = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), value, 16);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

class Reader {
public:
    explicit Reader(const SxString& root)
        : files(root),
          names(root == "/" ? std::string() : files.path("usr/share/misc/pci.ids")),
          kernel(files.line("proc/sys/kernel/osrelease")) {}

    ZqGraphicsFacts read() {
        std::set<std::string> known;
        for (const std::string& device : files.names(PCI)) {
            constexpr int64 DISPLAY_CLASS = 0x03;
            const std::string folder = PCI + device;
            if (hexNumber(files.line(folder + "/class")).value_or(0) >> 16 != DISPLAY_CLASS) continue;
            known.insert(device);
            add(folder, pciName(folder));
        }
        // Cards that aren't on a PCI bus, as in a board's own chip.
        for (const std::string& card : files.names(DRM)) {
            if (!card.starts_with("card") || !ZqFactFiles::toNumber(std::string_view(card).substr(4)))
                continue;
            const std::string folder = DRM + card + "/device";
            const std::string device = files.target(folder);
            if (device.empty() || !known.insert(device).second) continue;
            add(folder, boardName(folder));
        }
        return std::move(facts);
    }

private:
    const std::string PCI = "sys/bus/pci/devices/", DRM = "sys/class/drm/";

    void add(const std::string& folder, const SxString& name) {
        ZqGraphicsFacts::Card card;
        if (!name.isEmpty()) card.name = name.validUtf8();
        const std::string driver = files.target(folder + "/driver");
        if (!driver.empty()) {
            std::string version = files.line(folder + "/driver/module/version");
            if (version.empty()) version = kernel;
            card.driver = SxString(version.empty() ? driver : driver + " " + version).validUtf8();
        }
        // Of the kernel's drivers amdgpu tells this; others keep it to their own libraries.
        card.memory = files.number(folder + "/mem_info_vram_total").value_or(0);
        facts.cards.push_back(card);
    }

    SxString pciName(const std::string& folder) {
        const auto vendor = hexNumber(files.line(folder + "/vendor"));
        const auto device = hexNumber(files.line(folder + "/device"));
        if (!vendor || !device) {
            facts.faults.push_back("Getting GPU Name failed with error: no id in " +
                                   SxString(files.path(folder)));
            return SxString();
        }
        try {
            return names.nameOf(*vendor, *device);
        } catch (const SxException& e) {
            facts.faults.push_back("Getting GPU Name failed with error: " +
                                   e.toString(SxException::ShowMessage, ": "));
            return SxString::sprintf("Device %04llx:%04llx", static_cast<unsigned long long>(*vendor),
                                     static_cast<unsigned long long>(*device));
        }
    }

    /// What the board's description calls it, else its driver.
    SxString boardName(const std::string& folder) const {
        constexpr std::string_view KEY = "OF_COMPATIBLE_0=";
        std::string text;
        try {
            text = files.text(folder + "/uevent");
        } catch (const SxException&) {
            // A device without such a description.
        }
        for (const std::string_view line : ZqFactFiles::lines(text)) {
            if (line.starts_with(KEY)) return SxString(line.substr(KEY.size()));
        }
        return SxString(files.target(folder + "/driver"));
    }

    const ZqFactFiles files;
    ZqPciNames names;
    const std::string kernel;
    ZqGraphicsFacts facts;
};

} // namespace

ZqGraphicsFacts ZqGraphicsFacts::read(const SxString& root) {
    return Reader(root).read();
}
