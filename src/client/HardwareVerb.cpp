#include "App.h"
#include "Verbs.h"

#include <tavrin/SxSymbol.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqRuntimeInfo.h>

#include <vector>

namespace {

using SxParserKit::SxSymbol;
namespace Json = SxParserAst;

constexpr double MIB = 1 << 20;

/// What the machine is, and why the drive service has told no version; empty where it has.
struct Hardware {
    ZqRuntimeInfo facts;
    SxString versionFailure;
};

Hardware look() {
    Hardware hardware;
    hardware.versionFailure = hardware.facts.getKnownSpecs();
    return hardware;
}

/// The lists of a record side by side; each of them has an entry for each drive.
struct Drive {
    SxString name, fileSystem;
    int type = 0;
    uint64 size = 0, free = 0;
};

std::vector<Drive> drivesOf(const ZqRuntimeInfo& facts) {
    std::vector<Drive> drives;
    auto fileSystem = facts.driveFileSystems.begin();
    auto type = facts.driveTypes.begin();
    auto size = facts.driveSizes.begin(), free = facts.driveFree.begin();
    for (const SxString& name : facts.driveNames)
        drives.push_back({name, *fileSystem++, *type++, *size++, *free++});
    return drives;
}

SxSymbol toJson(const Hardware& hardware) {
    const ZqRuntimeInfo& facts = hardware.facts;
    SxSymbol root;
    root.setType(Json::Object);
    root.append("system", facts.winVer);
    root.append("hostId", facts.hostId);
    SxSymbol list = root.append("processors", Json::Array);
    auto cores = facts.cpuCores.begin();
    for (const SxString& name : facts.cpuNames) {
        SxSymbol object = list.append(Json::Object);
        object.append("name", name);
        object.append("cores", *cores++);
    }
    list = root.append("graphics", Json::Array);
    auto driver = facts.gpuDrivers.begin();
    auto memory = facts.gpuRam.begin();
    for (const SxString& name : facts.gpuNames) {
        SxSymbol object = list.append(Json::Object);
        object.append("name", name);
        object.append("driver", *driver++);
        object.append("memory", *memory++);
    }
    root.append("ramTotal", facts.ramTotal);
    root.append("ramFree", facts.ramFree);
    root.append("ramLoad", facts.ramLoad);
    root.append("resolution", facts.resolution);
    list = root.append("drives", Json::Array);
    for (const Drive& drive : drivesOf(facts)) {
        SxSymbol object = list.append(Json::Object);
        object.append("name", drive.name);
        object.append("fileSystem", drive.fileSystem);
        object.append("type", drive.type);
        object.append("size", drive.size);
        object.append("free", drive.free);
    }
    SxSymbol versions = root.append("versions", Json::Object);
    versions.append("library", facts.rteVer);
    versions.append("drive", facts.zqddVer);
    versions.append("guard", facts.zqfmVer);
    root.append("versionFailure", hardware.versionFailure.validUtf8());
    return root;
}

const char* wordOf(int driveType) {
    switch (driveType) {
    case 2:
        return "removable";
    case 4:
        return "network";
    case 5:
        return "optical";
    case 6:
        return "memory";
    default:
        return "fixed";
    }
}

void tell(const Hardware& hardware, Output* out) {
    const ZqRuntimeInfo& facts = hardware.facts;
    const auto line = [&](const char* what, const SxString& text) {
        out->text(SxString::sprintf("%-14s", what) + text.makeVisible());
    };
    line("System", facts.winVer);
    line("Host id", facts.hostId);
    auto cores = facts.cpuCores.begin();
    for (const SxString& name : facts.cpuNames)
        line("Processor", name + ", " + ZqReadable::counted(*cores++, "core", "cores"));
    auto driver = facts.gpuDrivers.begin();
    auto memory = facts.gpuRam.begin();
    for (const SxString& name : facts.gpuNames) {
        const auto bytes = static_cast<double>(*memory++);
        line("Graphics",
             name + ", driver " + *driver++ + (bytes > 0 ? ", " + ZqReadable::bytes(bytes) : SxString()));
    }
    if (facts.gpuNames.isEmpty()) line("Graphics", "none");
    if (facts.ramTotal < 0) {
        line("Memory", "Unknown");
    } else {
        line("Memory", ZqReadable::bytes(static_cast<double>(facts.ramTotal) * MIB) + ", " +
                           ZqReadable::bytes(static_cast<double>(facts.ramFree) * MIB) + " free, load " +
                           facts.ramLoad + " %");
    }
    line("Screen", facts.resolution);
    for (const Drive& drive : drivesOf(facts)) {
        SxString text = drive.name + ", " + drive.fileSystem + ", " + wordOf(drive.type);
        if (drive.size > 0) {
            text += ", " + ZqReadable::bytes(static_cast<double>(drive.size)) + ", " +
                    ZqReadable::bytes(static_cast<double>(drive.free)) + " free";
        }
        line("Drive", text);
    }
    line("Library", facts.rteVer);
    if (hardware.versionFailure.isEmpty()) {
        line("Service", "drives " + facts.zqddVer + ", guard " + facts.zqfmVer);
    } else {
        line("Service", "tells no version: " + hardware.versionFailure);
    }
}

} // namespace

void registerHardwareVerb(Family* stats) {
    stats->verb("hardware", "Show what the machine is, as statistics have it", "tavrin stats hardware --json")
        .action([](Output& out) {
            const Hardware hardware = look();
            if (out.getMode().json) out.object(toJson(hardware));
            tell(hardware, &out);
            return ExitSuccess;
        });
}
