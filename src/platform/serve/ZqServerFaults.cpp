#include "ZqServerFaults.h"

#include "SxException.h"

#include <array>

namespace {

constexpr const char* UNIT = "src/platform/serve/ZqServerFaults";

struct FaultName {
    const char* name;
    ZqServerFaults::Fault fault;
};
constexpr std::array<FaultName, 11> FAULT_NAMES = {{{"stall", ZqServerFaults::Stall},
                                                    {"close", ZqServerFaults::Close},
                                                    {"drop10", ZqServerFaults::Drop10},
                                                    {"short", ZqServerFaults::Short},
                                                    {"wrong-range", ZqServerFaults::WrongRange},
                                                    {"200", ZqServerFaults::Whole},
                                                    {"truncate", ZqServerFaults::Truncate},
                                                    {"500", ZqServerFaults::Error500},
                                                    {"changed", ZqServerFaults::Changed},
                                                    {"login", ZqServerFaults::Login},
                                                    {"403", ZqServerFaults::Error403}}};

} // namespace

ZqServerFaults::Fault ZqServerFaults::fromName(const SxString& name) {
    for (const FaultName& entry : FAULT_NAMES)
        if (name == entry.name) return entry.fault;
    throw SxException("There is no fault '" + name + "'; there are: " + SxString::join(getNames(), ", "),
                      UNIT, __LINE__);
}

SxList<SxString> ZqServerFaults::getNames() {
    SxList<SxString> names;
    for (const FaultName& entry : FAULT_NAMES)
        names << SxString(entry.name);
    return names;
}

void ZqServerFaults::set(Fault fault, bool on) {
    if (on) {
        faults |= fault;
    } else {
        faults &= ~static_cast<unsigned>(fault);
    }
}
