#pragma once

#include "SxException.h"
#include "ZqRegFile.h"

#include <functional>
#include <map>
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
    /// Where its value is removed, so many parts at the end of the key's path go where they are empty then;
    /// where nothing says how many, the key itself, if it becomes empty by that.
    std::optional<size_t> nMade = {};
};

/// The registry of one prefix: its files, or, while programs run there, what Wine's server keeps in memory,
/// since that would overwrite the files. Where the server runs and can't be talked to, because Wine isn't
/// installed or fails, an edit waits SERVER_MS for its end. After an edit of the files the server is looked
/// for again: one that began meanwhile may have read the old ones. Safe from any thread and any number of
/// processes.
class ZqRegStore {
public:
    /// Longest wait for another process that edits the registry, and for the end of a server that can't be
    /// talked to, in milliseconds.
    static constexpr int64 LOCK_MS = 150'000, SERVER_MS = 10'000;

    /// `prefix` is a host path.
    explicit ZqRegStore(const SxString& prefix_) : prefix(prefix_) {}

    /// Reads what is below one key. Gives the registry, with `*found` as the key's place in it.
    ZqRegFile read(const ZqRegAddress& address, ZqRegFile::Key* found) const;
    struct Found {
        std::optional<ZqRegData> data; ///< of the value
        size_t nAbsent = 0;            ///< so many parts at the end of the key's path aren't there
    };
    using Note = std::function<void(const std::vector<Found>& found)>;
    /// Whether the prefix is for 32-bit programs alone.
    bool isWin32() const;
    /// Makes all the edits, or raises and makes none: the list is worked out in memory, and each file
    /// replaced once; where the second can't be written, the first is put back. Through the server, what it
    /// didn't take is noticed, and all is taken back. A removal that finds nothing is none; a key that one is
    /// for and that becomes empty goes.
    /// `note`, where given, is called once before anything is written, with what stands in the places of the
    /// edits, in their order; where it raises, nothing is written.
    void apply(const std::vector<ZqRegEdit>& edits, const Note& note = nullptr) const;

private:
    struct HiveFile;

    HiveFile load(ZqRegAddress::Hive hive) const;
    void applyToFiles(const std::vector<ZqRegEdit>& edits) const;
    void applyByWine(const std::vector<ZqRegEdit>& edits) const;
    bool tryWine(const std::vector<ZqRegEdit>& edits, Note* due, SxException* failure) const;
    std::vector<Found> lookInFiles(const std::vector<ZqRegEdit>& edits) const;
    std::vector<Found> askWineFor(const std::vector<ZqRegEdit>& edits) const;
    ZqRegFile askWine(const std::vector<ZqRegEdit>& edits) const;
    size_t countAbsent(const ZqRegFile& answer, ZqRegFile::Key key, std::map<SxString, bool>* known) const;

    const SxString prefix;
};
