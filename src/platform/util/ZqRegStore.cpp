#include "ZqRegStore.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqFold.h"
#include "ZqLog.h"
#include "ZqWine.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqRegStore";
/// Largest registry file that is taken, in bytes. That of a new prefix has 1.7 MB.
constexpr int64 MAX_FILE = 64 << 20;
/// Longest part of a key's path that the Windows registry has, in UTF-16 units.
constexpr size_t MAX_PART = 255;
/// So many times an edit of the files is made anew because a server has begun meanwhile.
constexpr int MAX_ATTEMPTS = 3;
constexpr const char* LOCK_FILE = "/tavrin-registry.lock";
constexpr const char16_t* WOW_NODE = u"Wow6432Node";

struct HiveName {
    const char* file;
    const char* root; ///< in the file's second line
    const char16_t* longName;
};
constexpr HiveName HIVES[ZqRegAddress::N_HIVES] = {
    {"/system.reg", "REGISTRY\\\\Machine", u"HKEY_LOCAL_MACHINE"},
    {"/user.reg", "REGISTRY\\\\User\\\\S-1-5-21-0-0-0-1000", u"HKEY_CURRENT_USER"}};

/// Keeps other processes from editing while it lives.
class StoreLock {
public:
    explicit StoreLock(const SxString& prefix) {
        SxOs& os = SxOs::get();
        const std::string file = prefix.str() + LOCK_FILE;
        fd = os.open(file, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow, 0600);
        int result = fd;
        if (fd >= 0) {
            SxWait::pass(ZqRegStore::LOCK_MS, [&] {
                result = os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive);
                return result != -EAGAIN;
            });
        }
        if (result >= 0) return;
        if (fd >= 0) os.close(fd);
        const SxString why = result == -EAGAIN ? "another process is editing it" : SxOs::errorText(result);
        throw SxException(SxException(why, UNIT, __LINE__), "Cannot lock the registry of '" + prefix + "'",
                          UNIT, __LINE__);
    }
    ~StoreLock() { SxOs::get().close(fd); }
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;

private:
    int fd = -1;
};

/// A value's place and what it is to hold, in one ZqRegFile.
struct Change {
    ZqRegFile::Key key;
    const ZqRegEdit* edit;
};

/// Makes the changes and gives the keys that went with them.
std::vector<ZqRegFile::Key> applyTo(ZqRegFile* file, const std::vector<Change>& changes) {
    std::vector<ZqRegFile::Key> candidates, removed;
    for (const Change& change : changes) {
        if (change.edit->data) continue;
        ZqRegFile::Key key = change.key;
        if (!change.edit->nMade) {
            // One that was empty before wasn't made for this value.
            if (file->hasKey(key) && !file->isEmpty(key)) candidates.push_back(key);
            continue;
        }
        for (size_t n = *change.edit->nMade; n > 0 && !key.empty(); --n) {
            candidates.push_back(key);
            key.pop_back();
        }
    }
    for (const auto& [key, edit] : changes) {
        if (edit->data) {
            file->set(key, edit->name, *edit->data);
        } else {
            file->remove(key, edit->name);
        }
    }
    // The deepest first: a key that only held sub-keys may be empty then. Keys that only stand above one of
    // the list stay, since another program may have made them, but for those that are said to be ours.
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& a, const auto& b) { return a.size() > b.size(); });
    for (const ZqRegFile::Key& key : candidates) {
        if (!file->hasKey(key) || !file->isEmpty(key)) continue;
        file->removeKey(key);
        removed.push_back(key);
    }
    return removed;
}

SxString joinKey(const ZqRegFile::Key& key) {
    std::u16string text;
    for (const std::u16string& part : key)
        text += (text.empty() ? u"" : u"\\") + part;
    return zqFromUtf16(text);
}

/// One registry file in the form that `wine reg import` takes.
class ImportText {
public:
    void section(const ZqRegFile::Key& key, bool removes) {
        text += "\r\n[" + SxString(removes ? "-" : "") + joinKey(key) + "]\r\n";
    }
    void value(const std::u16string& name, const std::optional<ZqRegData>& data) {
        const SxString quoted = zqFromUtf16(name)
                                    .substitute("\\", "\\\\")
                                    .substitute("\"", "\\\"")
                                    .substitute("\n", "\\n")
                                    .substitute("\r", "\\r");
        text += name.empty() ? SxString("@=") : "\"" + quoted + "\"=";
        if (!data) {
            text += "-\r\n";
            return;
        }
        text += SxString::sprintf("hex(%x):", data->type);
        for (size_t i = 0; i < data->bytes.size(); ++i) {
            const unsigned byte = static_cast<unsigned char>(data->bytes[i]);
            text += SxString::sprintf(i > 0 ? ",%02x" : "%02x", byte);
        }
        text += "\r\n";
    }
    std::string bytes() const {
        return ZqRegText::toBytes(zqUtf16("\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n" + text));
    }

private:
    SxString text;
};

SxString canonicalFile(const SxString& path) {
    std::string target;
    // A link stays one, and the file that it leads to is replaced.
    return SxOs::get().canonical(path.str(), &target) == 0 ? SxString(target) : path;
}

} // namespace

ZqRegAddress ZqRegAddress::parse(const SxString& text) {
    ZqRegAddress address;
    const SxList<SxString> parts = text.substitute("\\", "/").tokenize('/');
    const SxString root = parts.isEmpty() ? SxString() : parts.first().toUpper();
    if (root == "HKCR") {
        address.key = {u"Software", u"Classes"};
    } else if (root == "HKCU") {
        address.hive = User;
    } else if (!(root == "HKLM")) {
        throw SxException("The registry key '" + text + "' doesn't begin with HKLM, HKCU or HKCR", UNIT,
                          __LINE__);
    }
    for (auto part = std::next(parts.begin()); part != parts.end(); ++part) {
        std::u16string name = zqUtf16(*part);
        if (name.size() > MAX_PART || name.find(u'\0') != std::u16string::npos) {
            throw SxException("The registry key '" + text + "' has a part that no key can be called", UNIT,
                              __LINE__);
        }
        // The node of 32-bit programs is written as Wine spells it.
        if (zqFold(name) == zqFold(WOW_NODE)) name = WOW_NODE;
        address.key.push_back(std::move(name));
    }
    return address;
}

ZqRegFile::Key ZqRegAddress::withRoot() const {
    ZqRegFile::Key result = {HIVES[hive].longName};
    result.insert(result.end(), key.begin(), key.end());
    return result;
}

struct ZqRegStore::HiveFile {
    SxString path;
    bool exists = false;
    std::string text; ///< as it stands on the disk, or would without a change
    ZqRegFile content;

    void restore() const {
        try {
            if (exists) {
                SxFileIO::writeAtomic(path, text, SxFileIO::KEEP);
            } else {
                SxFSAction::rm(path);
            }
        } catch (const SxException& e) {
            zqLogMsg("base", "Cannot take back edits of the registry: " + SxString(e.what()));
        }
    }
};

ZqRegStore::HiveFile ZqRegStore::load(ZqRegAddress::Hive hive) const {
    const SxString path = canonicalFile(prefix + HIVES[hive].file);
    // Where that can't be told it raises: a registry that counts as empty would be replaced by one.
    if (!SxFSAction::isGone(path)) {
        std::string text = SxFileIO::readUtf8(path, MAX_FILE).str();
        ZqRegFile content = ZqRegFile::parse(text, path);
        return {path, true, std::move(text), std::move(content)};
    }
    // Wine refuses a prefix whose files don't agree on its kind.
    const auto other = hive == ZqRegAddress::Machine ? ZqRegAddress::User : ZqRegAddress::Machine;
    SxString arch;
    if (!SxFSAction::isGone(prefix + HIVES[other].file)) arch = load(other).content.getArch();
    ZqRegFile content(HIVES[hive].root, arch.isEmpty() ? SxString(ZqRegFile::ARCH) : arch);
    std::string text = content.toText();
    return {path, false, std::move(text), std::move(content)};
}

ZqRegFile ZqRegStore::read(const ZqRegAddress& address, ZqRegFile::Key* found) const {
    // Without a Wine to ask there is at least what the server last saved.
    if (ZqWine::isServing(prefix) && ZqWine::isInstalled()) {
        const StoreLock lock(prefix);
        *found = address.withRoot();
        return askWine({{address, {}, std::nullopt}});
    }
    HiveFile file = load(address.hive);
    *found = file.content.resolve(address.key);
    return std::move(file.content);
}

/// How many parts at the end of a key, whose first is the root, aren't there. The server was asked for what
/// is below the key alone, so those above it are asked for one by one, each once: a question takes it a
/// while.
size_t ZqRegStore::countAbsent(const ZqRegFile& answer, ZqRegFile::Key key,
                               std::map<SxString, bool>* known) const {
    size_t n = 0;
    if (answer.hasKey(key)) return n;
    const auto isThere = [&] {
        const SxString name = joinKey(key);
        const auto found = known->find(name);
        if (found != known->end()) return found->second;
        return (*known)[name] = ZqWine::hasKey(prefix, name);
    };
    do {
        ++n;
        key.pop_back();
    } while (key.size() > 1 && !isThere());
    return n;
}

std::vector<ZqRegStore::Found> ZqRegStore::askWineFor(const std::vector<ZqRegEdit>& edits) const {
    std::vector<Found> found;
    const ZqRegFile answer = askWine(edits);
    std::map<SxString, bool> known;
    for (const ZqRegEdit& edit : edits) {
        const ZqRegFile::Key key = edit.address.withRoot();
        found.push_back({answer.find(key, edit.name), countAbsent(answer, key, &known)});
    }
    return found;
}

std::vector<ZqRegStore::Found> ZqRegStore::lookInFiles(const std::vector<ZqRegEdit>& edits) const {
    std::vector<Found> found;
    std::optional<HiveFile> files[ZqRegAddress::N_HIVES];
    for (const ZqRegEdit& edit : edits) {
        std::optional<HiveFile>& file = files[edit.address.hive];
        if (!file) file = load(edit.address.hive);
        ZqRegFile::Key key = file->content.resolve(edit.address.key);
        Found one{file->content.find(key, edit.name), 0};
        for (; !key.empty() && !file->content.hasKey(key); key.pop_back())
            ++one.nAbsent;
        found.push_back(std::move(one));
    }
    return found;
}

bool ZqRegStore::isWin32() const {
    return !SxFSAction::isGone(prefix + HIVES[ZqRegAddress::Machine].file) &&
           load(ZqRegAddress::Machine).content.getArch() == "#arch=win32";
}

/// Makes the edits through the server, where one runs that can be talked to; else says why not. Calls `*due`,
/// and empties it.
bool ZqRegStore::tryWine(const std::vector<ZqRegEdit>& edits, Note* due, SxException* failure) const {
    if (!ZqWine::isServing(prefix) || !ZqWine::isInstalled()) return false;
    std::vector<Found> found;
    try {
        if (*due) found = askWineFor(edits);
    } catch (const SxException& e) {
        *failure = e;
        return false;
    }
    if (*due) std::exchange(*due, nullptr)(found);
    try {
        applyByWine(edits);
        return true;
    } catch (const SxException& e) {
        *failure = e;
        return false;
    }
}

void ZqRegStore::apply(const std::vector<ZqRegEdit>& edits, const Note& note) const {
    const bool writes = std::any_of(edits.begin(), edits.end(), [](const auto& edit) { return edit.data; });
    if (writes) SxFSAction::mkdir_p(prefix);
    if (edits.empty() || !SxFSAction::test_d(prefix)) return;
    const StoreLock lock(prefix);
    Note due = note;
    for (int attempt = 0; attempt < MAX_ATTEMPTS; ++attempt) {
        SxException failure("there is no 'wine' in the folders of $PATH", UNIT, __LINE__);
        if (tryWine(edits, &due, &failure)) return;
        if (!SxWait::pass(SERVER_MS, [&] { return !ZqWine::isServing(prefix); })) {
            throw SxException(failure,
                              "The registry of '" + prefix +
                                  "' is kept by a Wine server that can't be reached; end the programs that "
                                  "run there",
                              UNIT, __LINE__);
        }
        if (due) std::exchange(due, nullptr)(lookInFiles(edits));
        applyToFiles(edits);
        // A server that began meanwhile may have read the old files; then it is to be told as well.
        if (!ZqWine::isServing(prefix)) return;
    }
    throw SxException("The registry of '" + prefix + "' can't be edited: Wine servers come and go", UNIT,
                      __LINE__);
}

void ZqRegStore::applyToFiles(const std::vector<ZqRegEdit>& edits) const {
    std::vector<HiveFile> files;
    for (const auto hive : {ZqRegAddress::Machine, ZqRegAddress::User}) {
        const auto concerns = [&](const ZqRegEdit& edit) { return edit.address.hive == hive; };
        if (std::none_of(edits.begin(), edits.end(), concerns)) continue;
        HiveFile file = load(hive);
        std::vector<Change> changes;
        for (const ZqRegEdit& edit : edits) {
            if (concerns(edit)) changes.push_back({file.content.resolve(edit.address.key), &edit});
        }
        applyTo(&file.content, changes);
        files.push_back(std::move(file));
    }
    std::vector<const HiveFile*> written;
    try {
        for (const HiveFile& file : files) {
            const std::string text = file.content.toText();
            if (text == file.text) {
                SxFileIO::tidyAfterWriters(file.path);
                continue;
            }
            SxFileIO::writeAtomic(file.path, text, SxFileIO::KEEP);
            written.push_back(&file);
        }
    } catch (const SxException& e) {
        // Half of a list is worse than none of it.
        for (const HiveFile* file : written)
            file->restore();
        throw SxException(e, "Cannot write the registry of '" + prefix + "'", UNIT, __LINE__);
    }
}

/// Gives what the server has of all keys that the edits are for. Keys begin with the hive's long name.
ZqRegFile ZqRegStore::askWine(const std::vector<ZqRegEdit>& edits) const {
    std::vector<SxString> keys;
    keys.reserve(edits.size());
    for (const ZqRegEdit& edit : edits) {
        ZqRegFile::Key key = edit.address.withRoot();
        // Of a key that may go it must be known what else is in it.
        for (size_t n = edit.nMade.value_or(0); n > 1 && key.size() > 2; --n)
            key.pop_back();
        keys.push_back(joinKey(key));
    }
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    std::string exports;
    for (const SxString& key : keys) {
        // An export has all that is below its key.
        const bool isCovered = std::any_of(keys.begin(), keys.end(), [&](const SxString& other) {
            return key.startsWith((other + "\\").str());
        });
        if (!isCovered) exports += ZqWine::exportKey(prefix, key).value_or("");
    }
    return ZqRegFile::parseExport(exports, prefix);
}

void ZqRegStore::applyByWine(const std::vector<ZqRegEdit>& edits) const {
    ZqRegFile wanted = askWine(edits);
    ImportText there, back;
    std::vector<Change> changes;
    for (const ZqRegEdit& edit : edits) {
        const ZqRegFile::Key key = edit.address.withRoot();
        changes.push_back({key, &edit});
        const std::optional<ZqRegData> old = wanted.find(key, edit.name);
        if (old != edit.data) {
            there.section(key, false);
            there.value(edit.name, edit.data);
            back.section(key, !wanted.hasKey(key));
            if (wanted.hasKey(key)) back.value(edit.name, old);
        }
    }
    const std::vector<ZqRegFile::Key> removed = applyTo(&wanted, changes);
    for (const ZqRegFile::Key& key : removed)
        there.section(key, true);
    try {
        ZqWine::importKeys(prefix, there.bytes());
        // An import doesn't tell what it passed over. So what came of it is read back.
        const ZqRegFile now = askWine(edits);
        for (const auto& [key, edit] : changes) {
            if (now.find(key, edit->name) == wanted.find(key, edit->name)) continue;
            throw SxException("Wine didn't take the value '" + zqFromUtf16(edit->name) + "' of the key '" +
                                  joinKey(key) + "'",
                              UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        try {
            ZqWine::importKeys(prefix, back.bytes());
        } catch (const SxException& second) {
            zqLogMsg("base", "Cannot take back edits of the registry: " + SxString(second.what()));
        }
        throw SxException(e, "Cannot edit the registry of '" + prefix + "' through Wine", UNIT, __LINE__);
    }
}
