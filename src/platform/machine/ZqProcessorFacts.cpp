#include "ZqProcessorFacts.h"

#include "SxException.h"
#include "ZqFactFiles.h"

#include <map>
#include <set>

namespace {

using Values = std::map<std::string, std::string, std::less<>>;

std::string valueOf(const Values& values, std::string_view name) {
    const auto found = values.find(name);
    return found == values.end() ? std::string() : found->second;
}

/// The file: what it says of each logical processor, by its number, and of the machine.
struct CpuInfo {
    std::map<int64, Values> logical;
    Values machine;
};

CpuInfo parse(const std::string& text) {
    CpuInfo info;
    Values* current = &info.machine;
    for (const std::string_view line : ZqFactFiles::lines(text)) {
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string name(ZqFactFiles::trim(line.substr(0, colon)));
        const std::string value(ZqFactFiles::trim(line.substr(colon + 1)));
        const auto number = name == "processor" ? ZqFactFiles::toNumber(value) : std::nullopt;
        if (number) current = &info.logical[*number];
        // On ARM the last lines tell of the board.
        const bool isBoard = name == "Hardware" || name == "Model";
        (isBoard ? info.machine : *current)[name] = value;
    }
    return info;
}

/// With runs of blanks as one, since some makers fill their names up.
std::string singleBlanks(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c != ' ' || !result.ends_with(' ')) result += c;
    }
    return result;
}

std::string nameIn(const Values& values) {
    // x86; LoongArch; MIPS; RISC-V; POWER
    for (const char* name : {"model name", "Model Name", "cpu model", "uarch", "cpu"}) {
        if (std::string value = valueOf(values, name); !value.empty()) return singleBlanks(value);
    }
    return {};
}

/// A name for a logical processor that has none of its own: that of the board, as on ARM, else the numbers of
/// the maker and its part.
std::string boardName(const CpuInfo& info, const Values& values, const ZqFactFiles& files) {
    for (const char* name : {"Hardware", "Model"}) {
        if (std::string value = valueOf(info.machine, name); !value.empty()) return value;
    }
    std::string board = files.line("proc/device-tree/model");
    if (!board.empty()) return board;
    const std::string maker = valueOf(values, "CPU implementer"), part = valueOf(values, "CPU part");
    return maker.empty() || part.empty() ? "" : "CPU implementer " + maker + ", part " + part;
}

/// The name of the first of those logical processors that has one, else of any: a container may number its
/// processors anew.
std::string nameOf(const CpuInfo& info, const std::vector<int64>& logical, const ZqFactFiles& files) {
    for (const int64 number : logical) {
        const auto found = info.logical.find(number);
        if (found == info.logical.end()) continue;
        if (std::string name = nameIn(found->second); !name.empty()) return name;
    }
    for (const auto& [number, values] : info.logical) {
        if (std::string name = nameIn(values); !name.empty()) return name;
    }
    const auto first = info.logical.find(logical.front());
    const std::string name = boardName(info, first == info.logical.end() ? Values() : first->second, files);
    return name.empty() ? "Unknown" : name;
}

/// One socket, while it is counted.
struct Socket {
    std::string id;
    std::set<std::string> cores; ///< what tells them apart
    std::vector<int64> logical;
};

Socket& socketOf(const std::string& id, std::vector<Socket>* sockets) {
    for (Socket& socket : *sockets) {
        if (socket.id == id) return socket;
    }
    return sockets->emplace_back(Socket{id, {}, {}});
}

/// Sockets as sysfs has them; none where it doesn't tell.
std::vector<Socket> fromTopology(const ZqFactFiles& files) {
    const std::string all = "sys/devices/system/cpu";
    std::vector<Socket> sockets;
    for (const std::string& name : files.names(all)) {
        if (!name.starts_with("cpu")) continue;
        const auto number = ZqFactFiles::toNumber(std::string_view(name).substr(3));
        if (!number) continue;
        std::string folder = all;
        folder.append("/").append(name).append("/topology/");
        // The threads of a core name each other. Numbers of cores begin anew in each die. What is switched
        // off has no topology.
        std::string core = files.line(folder + "core_cpus_list");
        if (core.empty()) core = files.line(folder + "thread_siblings_list");
        if (core.empty()) continue;
        Socket& socket = socketOf(files.line(folder + "physical_package_id"), &sockets);
        socket.cores.insert(core);
        socket.logical.push_back(*number);
    }
    return sockets;
}

/// Sockets as cpuinfo has them.
std::vector<Socket> fromInfo(const CpuInfo& info) {
    std::vector<Socket> sockets;
    for (const auto& [number, values] : info.logical) {
        Socket& socket = socketOf(valueOf(values, "physical id"), &sockets);
        const std::string core = valueOf(values, "core id");
        // Without a number of its core each logical processor counts as one.
        socket.cores.insert(core.empty() ? "logical " + std::to_string(number) : core);
        socket.logical.push_back(number);
    }
    return sockets;
}

} // namespace

ZqProcessorFacts ZqProcessorFacts::read(const SxString& root) {
    const ZqFactFiles files(root);
    ZqProcessorFacts facts;
    CpuInfo info;
    try {
        info = parse(files.text("proc/cpuinfo"));
    } catch (const SxException& e) {
        facts.faults.push_back(e.toString(SxException::ShowMessage, ": "));
    }
    std::vector<Socket> sockets = fromTopology(files);
    if (sockets.empty()) sockets = fromInfo(info);
    if (sockets.empty()) facts.faults.emplace_back("proc/cpuinfo names no processor");
    for (const Socket& socket : sockets) {
        facts.processors.push_back({SxString(nameOf(info, socket.logical, files)).validUtf8(),
                                    static_cast<int64>(socket.cores.size())});
    }
    return facts;
}
