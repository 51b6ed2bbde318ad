#pragma once

#include "ZqRegFile.h"

#include <optional>
#include <vector>

/// Where a key stands.
struct ZqRegAddress {
    enum Hive { Machine = 0, User = 1 };
    static constexpr int N_HIVES = 2;

    Hive hive = Machine;
    ZqRegFile::Key key;

    /// Reads a key of the library ("HKLM/Software/..."); raises where it has no known root, or a part that no
    /// key can be called.
    static ZqRegAddress parse(const SxString& text);
    /// The key with the hive's long name as its first part.
    ZqRegFile::Key withRoot() const;
};

/// One value that is to be written, or, without data, to be removed.
struct ZqRegEdit {
    ZqRegAddress address;
    std::u16string name;
    std::optional<ZqRegData> data;
};

/// The registry of one prefix: its files, or, while programs run there, what Wine's server keeps in memory.
/// Safe from any thread and any number of processes.
class ZqRegStore {
public:
    /// Longest wait for another process that edits the registry, and for the end of a server that can't be
    /// talked to, in milliseconds.
    static constexpr int64 LOCK_MS = 150'000, SERVER_MS = 10'000;

    /// `prefix` is a host path.
    explicit ZqRegStore(const SxString& prefix_) : prefix(prefix_) {}

    /// Reads what is below one key. Gives the registry, with `*found` as the key's place in it.
    ZqRegFile read(const ZqRegAddress& address, ZqRegFile::Key* found) const;
    /// Makes all the edits, or raises and makes none. A removal that finds nothing is none; a key that one is
    /// for and that becomes empty goes.
    void apply(const std::vector<ZqRegEdit>& edits) const;

private:
    struct HiveFile;

    HiveFile load(ZqRegAddress::Hive hive) const;
    void applyToFiles(const std::vector<ZqRegEdit>& edits) const;
    void applyByWine(const std::vector<ZqRegEdit>& edits) const;
    ZqRegFile askWine(const std::vector<ZqRegEdit>& edits) const;

    const SxString prefix;
};
