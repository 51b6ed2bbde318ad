#pragma once

#include "SxString.h"

#include <memory>
#include <string>

struct pci_access;

/// The names that go with the ids of PCI devices, from the machine's list of them (`pci.ids`) and that of its
/// device manager. Nothing is looked up in the network, no device is asked, and no right is needed. Belongs
/// to one thread.
class ZqPciNames {
public:
    /// `list`: a list of its own, a host path, beside which no other is asked; empty for the machine's. It is
    /// opened by the first question.
    explicit ZqPciNames(const std::string& list);
    ~ZqPciNames();
    ZqPciNames(const ZqPciNames&) = delete;
    ZqPciNames& operator=(const ZqPciNames&) = delete;

    /// The names of maker and device; numbers in the place of those that no list has. Raises where the list
    /// is damaged.
    SxString nameOf(int64 vendorId, int64 deviceId);

private:
    struct Closer {
        void operator()(pci_access* opened) const;
    };
    std::string list;
    std::unique_ptr<pci_access, Closer> access;
};
