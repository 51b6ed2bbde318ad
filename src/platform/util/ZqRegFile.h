#pragma once

#include "ZqRegText.h"

#include <deque>
#include <list>
#include <map>
#include <optional>
#include <vector>

/// A registry file of Wine in memory, or an export of a part of the registry. What isn't changed keeps its
/// bytes, also what isn't understood; keys that exist keep their times. Keys and names ignore case. Not
/// locked.
class ZqRegFile {
public:
    /// The parts of a key's path below the root of the file; empty for the root itself.
    using Key = std::vector<std::u16string>;

    static constexpr const char* ARCH = "#arch=win64";

    /// An empty registry. `root` is how Wine calls the file's root ("REGISTRY\\Machine"), `arch` the line
    /// that tells the kind of prefix.
    explicit ZqRegFile(const SxString& root, const SxString& arch = ARCH);
    // Lines point into the texts, and the index into the sections.
    ZqRegFile(const ZqRegFile&) = delete;
    ZqRegFile& operator=(const ZqRegFile&) = delete;
    ZqRegFile(ZqRegFile&&) = default;
    ZqRegFile& operator=(ZqRegFile&&) = default;
    ~ZqRegFile() = default;
    /// Takes a file's text. Raises where it isn't one of Wine, or damaged, naming `path` and the line. Wine
    /// always ends a file with a line feed, so one without is cut short.
    static ZqRegFile parse(std::string text, const SxString& path);
    /// Takes an export in UTF-16 ("Windows Registry Editor Version 5.00"), for reading. Keys keep the name of
    /// the root as their first part.
    static ZqRegFile parseExport(std::string_view bytes, const SxString& path);

    /// The key that `key` leads to by links of the registry (`Software\Wow6432Node\Classes` is one), or a
    /// value would end up where nobody looks for it. Raises where they lead round in a circle or out of the
    /// file.
    Key resolve(Key key) const;

    // These take keys as resolve() gives them.

    bool hasKey(const Key& key) const;
    /// Whether the key has neither values nor sub-keys.
    bool isEmpty(const Key& key) const;
    std::optional<ZqRegData> find(const Key& key, const std::u16string& name) const;
    void set(const Key& key, const std::u16string& name, const ZqRegData& data);
    /// Gives whether there was such a value.
    bool remove(const Key& key, const std::u16string& name);
    /// Removes a key that isEmpty(). Those above it stay.
    void removeKey(const Key& key);

    /// The line that tells the kind of prefix; empty where there is none.
    SxString getArch() const;
    std::string toText() const;

private:
    struct Line {
        std::string_view raw; ///< with its line feed, and the lines that continue it
        bool isValue = false;
        std::u16string name; ///< folded
    };
    /// What stands from the line of a key to the next; at the top of the file without a key.
    struct Section {
        std::vector<Line> lines;
        bool isLink = false;
    };
    using Sections = std::list<Section>;

    ZqRegFile() = default;
    void load(std::string text);
    void takeLine(std::string_view text, size_t* pos);
    std::string_view keep(std::string text);
    void begin(const Key& key, const std::u16string& folded);
    const std::vector<Sections::iterator>* sectionsOf(const Key& key) const;

    std::deque<std::string> texts; ///< what the lines point into
    Sections sections;
    std::map<std::u16string, std::vector<Sections::iterator>> index; ///< by folded key
    size_t nLinks = 0;
};
