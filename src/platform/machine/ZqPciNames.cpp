#include "ZqPciNames.h"

#include "SxException.h"

#include <array>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>

extern "C" {
#include <pci/pci.h>
}

namespace {

constexpr const char* UNIT = "src/platform/machine/ZqPciNames";

/// Where a failure of the library goes on, and its text. The library tells of one by a call that must not
/// return, and ends the program where nobody takes that over.
struct Failure {
    std::jmp_buf place;
    std::array<char, 200> text;
};
thread_local Failure failure;

void fail(char* format, ...) __attribute__((noreturn));
void fail(char* format, ...) {
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(failure.text.data(), failure.text.size(), format, values);
    va_end(values);
    // An exception would have to pass through frames of C. No object lies between here and there.
    std::longjmp(failure.place, 1); // NOLINT(cert-err52-cpp)
}

void keepQuiet(char* /*format*/, ...) {
}

/// Null where the library has failed. Holds nothing that a jump would leak.
const char* lookUp(pci_access* access, char* buffer, int size, int flags, int vendorId, int deviceId) {
    if (setjmp(failure.place) != 0) return nullptr; // NOLINT(cert-err52-cpp)
    return ::pci_lookup_name(access, buffer, size, flags, vendorId, deviceId);
}

} // namespace

void ZqPciNames::Closer::operator()(pci_access* opened) const {
    ::pci_cleanup(opened);
}

// Without pci_init(), which looks for a way to the devices, and ends the program where there is none.
ZqPciNames::ZqPciNames(const std::string& list_) : list(list_), access(::pci_alloc()) {
    access->error = fail;
    access->warning = keepQuiet;
    access->debug = keepQuiet;
    if (!list.empty()) ::pci_set_name_list_path(access.get(), list.data(), 0);
}

ZqPciNames::~ZqPciNames() = default;

SxString ZqPciNames::nameOf(int64 vendorId, int64 deviceId) {
    std::array<char, 256> buffer{};
    // The cache of names from the network would be read from the user's home.
    access->id_lookup_mode = 0;
    int flags = PCI_LOOKUP_VENDOR | PCI_LOOKUP_DEVICE;
    if (!list.empty()) flags |= PCI_LOOKUP_NO_HWDB;
    const char* name = lookUp(access.get(), buffer.data(), static_cast<int>(buffer.size()), flags,
                              static_cast<int>(vendorId), static_cast<int>(deviceId));
    if (!name) {
        throw SxException("Cannot read the list of PCI devices: " + SxString(failure.text.data()), UNIT,
                          __LINE__);
    }
    return SxString(name).validUtf8();
}
