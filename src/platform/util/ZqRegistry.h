#pragma once

#include "SxList.h"
#include "SxString.h"

#include <functional>

/// The registry of the machine root (ZqMachineRoot), which is that of a Wine prefix: HKLM is `system.reg`,
/// HKCU is `user.reg`, HKCR is HKLM/Software/Classes. A root without these files has an empty registry;
/// writing makes them. While programs run in the prefix, all goes through its server by means of `wine reg`.
/// Four units do the work: ZqRegText knows the words of a registry file, ZqRegFile one file as a tree,
/// ZqRegStore the two files of a prefix and the turns that editors take, ZqWine the server.
///
/// Keys are written with slashes (backslashes count as such) and begin with HKLM, HKCU or HKCR; keys and
/// names ignore case. All operations raise on a registry that can't be read, naming the file, and then change
/// nothing. Rights are those of the process. Safe from any thread and any number of processes, which take
/// turns at editing.
class ZqRegistry {
public:
    /// Kind of a value's data. The numbers are of this library; the texts are the usual ones.
    enum RegValType {
        RegSz = 0,       ///< "REG_SZ", text
        RegDword = 1,    ///< "REG_DWORD", 32-bit number as decimal text
        RegQword = 2,    ///< "REG_QWORD", 64-bit number as decimal text
        RegExpandSz = 3, ///< "REG_EXPAND_SZ", text with variables
        RegMultiSz = 4,  ///< "REG_MULTI_SZ", several texts with line feeds between them
        RegBinary = 5    ///< "REG_BINARY", bytes in hex digits
    };

    /// One value of a key.
    struct Item {
        SxString key;   ///< with forward slashes, starting with HKLM, HKCU or HKCR
        SxString value; ///< the value's name; empty for the key's default value
        RegValType regType = RegSz;
        SxString data;

        bool operator==(const Item&) const = default;

        /// The kind with that text ("REG_DWORD"); raises on an unknown one.
        static RegValType string2Type(const SxString& text);
        static SxString type2String(RegValType type);
    };

    /// One value as it stands, or is to stand, in the registry; or that there is none. For undoing a change.
    struct State {
        SxString key;    ///< as in Item
        SxString value;  ///< the value's name
        int64 nMade = 0; ///< so many parts at the end of the key's path aren't there without the change
        bool isThere = false;
        uint32 type = 0; ///< number of the Windows interface, also one that RegValType lacks
        SxString bytes;  ///< the data in hex digits; texts are UTF-16 little-endian with a NUL at the end

        bool operator==(const State&) const = default;
        /// Whether both are of one value, however its key is spelled.
        bool isSameValue(const State& other) const;
    };

    /// Whether the key holds a value or a sub-key of that name.
    static bool contains(const SxString& key, const SxString& name);
    /// Whether the key holds a value of that name; the empty name is its default value.
    static bool isVal(const SxString& key, const SxString& name);
    /// The value as text, numbers in decimal, kinds that aren't in RegValType as bytes in hex digits. Raises
    /// where there is none.
    static SxString getVal(const SxString& key, const SxString& name);
    /// Writes a value, and makes its key. `data` is text for all kinds; numbers are taken in decimal, or in
    /// hex after "0x". Raises where it doesn't fit the kind.
    static void setVal(const SxString& key, const SxString& name, RegValType type, const SxString& data);

    /// Writes all values of the list, or raises and leaves everything as it was. "{{ZQDRIVE}}" in an item's
    /// data becomes `mountPoint` (a letter and a colon), or no entry could tell where the application lies.
    /// In keys and names it stays: they are removed again without a mount point.
    static void createRegEntriesAsAdmin(const SxList<Item>& list, const SxString& mountPoint);
    /// What `note` gets before anything is written: how the values stand, each once, and how they will.
    using Note = std::function<void(const SxList<State>& former, const SxList<State>& written)>;
    /// The same as createRegEntriesAsAdmin(), in one turn with a call of `note`; where that raises, nothing
    /// is written. Of the keys' parts in `former`, those that the states of `made` have made count as not
    /// being there.
    static void createNoted(const SxList<Item>& list, const SxString& mountPoint, const SxList<State>& made,
                            const Note& note);
    /// Writes the values as the states say, or raises and leaves everything as it was. Of a key of which a
    /// value goes, its last `nMade` parts go where they are empty.
    static void put(const SxList<State>& states);
    /// Whether the machine root is one for 32-bit programs alone, in which their keys have no node of their
    /// own ("WOW6432Node").
    static bool isWin32();

    /// Removes all values of the list, whatever they hold by now, and those of its keys that become empty by
    /// that. A key that only stands above one of these stays, since another program may have made it. A value
    /// that isn't there is no failure.
    static void removeRegEntriesAsAdmin(const SxList<Item>& list);
};
