#include "ZqOptimizeFolder.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxXxh64.h"
#include "ZqArchiveFile.h"
#include "ZqImageFiles.h"
#include "ZqMoveProgress.h"
#include "ZqOrderHints.h"
#include "ZqRecordFile.h"

#include <algorithm>
#include <optional>

using SxParserKit::SxSymbol;
namespace Json = SxParserAst;

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqOptimizeFolder";
constexpr int64 VERSION = 2;
constexpr const char* IN_PLACE = "inPlace";
constexpr const char* COPY = "copy";
/// A map that fits the old file, or records that fit the old map, must never stand beside the new ones
/// without the lock; the order is the one that people find who look into the folder.
constexpr const char* RECORDS[] = {ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON, ZqImageFiles::IDX,
                                   ZqImageFiles::IDX_MD5, ZqImageFiles::HINTS};
constexpr const char* COPIED[] = {ZqImageFiles::ZQF, ZqImageFiles::AHEAD, ZqImageFiles::AHEAD_IDX};

constexpr const char* OTHER_FILES[] = {ZqImageFiles::ZQF,       ZqImageFiles::AHEAD,
                                       ZqImageFiles::AHEAD_IDX, ZqOptimizeFolder::NOTE,
                                       ZqOptimizeFolder::HEADS, ZqOptimizeFolder::PROGRESS};
constexpr const char* FOLDERS[] = {ZqOptimizeFolder::STAGED, ZqArchiveFile::UNPACKED};

/// Whether it is a plain file of an optimisation, or one of its folders. What is written into has no other
/// name; the others may have two for a time, since they are renamed.
bool isKnown(const SxString& name, const SxStat& info) {
    const auto isThat = [&](const char* known) { return name == known; };
    if (info.kind == SxStat::Dir) {
        return std::any_of(std::begin(FOLDERS), std::end(FOLDERS),
                           [&](const char* known) { return name + "/" == known; });
    }
    const bool isWritten = name == ZqOptimizeFolder::HEADS || name == ZqOptimizeFolder::PROGRESS;
    return info.kind == SxStat::File && (!isWritten || info.nNames == 1) &&
           (std::any_of(std::begin(ZqOptimizeFolder::INDEX_FILES), std::end(ZqOptimizeFolder::INDEX_FILES),
                        isThat) ||
            std::any_of(std::begin(OTHER_FILES), std::end(OTHER_FILES), isThat) ||
            SxFileIO::isTemporaryName(name, ZqOptimizeFolder::NOTE));
}

/// Copies what a link leads to, and not the link: what it leads to may go.
void copyFile(const SxString& from, const SxString& to) {
    std::string real;
    const int result = SxOs::get().canonical(SxOs::hostPath(from), &real);
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__), SxFileIO::fileReadErr(from),
                          UNIT, __LINE__);
    }
    SxFSAction::cp(SxString(real), to);
    // It becomes a file of the image, whatever it was where it came from.
    SxOs::get().setPermissions(SxOs::hostPath(to), 0644);
}

void putOrder(SxSymbol* root, const char* key, const ZqOptimizeNote::Order& order) {
    SxSymbol object = root->append(key, Json::Object);
    object.append("idx", order.idx);
    object.append("sizeZqf", order.sizeZqf);
}

ZqOptimizeNote::Order getOrder(const SxSymbol& root, const char* key) {
    const SxSymbol object = root.getElem(key, true);
    return {object.getElem("idx", true).toString(),
            ZqRecordFile::toUnsigned(object.getElem("sizeZqf", true))};
}

} // namespace

SxString ZqOptimizeNote::toText() const {
    SxSymbol root;
    root.setType(Json::Object);
    root.append("version", VERSION);
    root.append("mode", mode == InPlace ? IN_PLACE : COPY);
    root.append("guid", guid);
    putOrder(&root, "from", from);
    putOrder(&root, "to", to);
    if (!index.isEmpty()) root.append("index", index);
    if (mode == Copy) {
        SxSymbol stamp = root.append("source", Json::Object);
        stamp.append("size", source.size);
        stamp.append("modifiedMs", source.modifiedMs);
    } else {
        SxSymbol plan = root.append("plan", Json::Object);
        plan.append("format", ZqMovePlan::FORMAT);
        plan.append("heads", limits.nHeads);
        plan.append("steps", limits.nSteps);
    }
    return root.toJson(4) + "\n";
}

ZqOptimizeNote ZqOptimizeNote::parse(const SxString& text, const SxString& file) {
    try {
        const SxSymbol root = ZqRecordFile::parse(text, file, "zqopt-schema.json");
        ZqOptimizeNote note;
        note.mode = root.getElem("mode", true).toString() == IN_PLACE ? InPlace : Copy;
        note.guid = root.getElem("guid", true).toString();
        note.from = getOrder(root, "from");
        note.to = getOrder(root, "to");
        ZqRecordFile::get(root, "index", &note.index);
        if (note.mode == Copy) return note;
        const SxSymbol plan = root.getElem("plan", true);
        note.limits = {ZqRecordFile::toUnsigned(plan.getElem("heads", true)),
                       ZqRecordFile::toUnsigned(plan.getElem("steps", true))};
        if (ZqRecordFile::toUnsigned(plan.getElem("format", true)) != ZqMovePlan::FORMAT) {
            throw SxException("Another version of this program began the optimisation; only that one knows "
                              "how to go on",
                              UNIT, __LINE__);
        }
        return note;
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

ZqOptimizeFolder::ZqOptimizeFolder(const SxString& image_)
    : image(image_),
      path(image_ + ZqImageFiles::OPTIMIZE_WORK) {
}

bool ZqOptimizeFolder::has(const char* name) const {
    return !SxFSAction::isGone(path + name);
}

bool ZqOptimizeFolder::isLocked() const {
    return !SxFSAction::isGone(image + ZqImageFiles::OPTIMIZE_LOCK);
}

ZqOptimizeFolder::State ZqOptimizeFolder::state() const {
    const bool locked = isLocked();
    if (SxFSAction::isGone(path)) return locked ? Lost : Nothing;
    if (SxFSAction::ls(path).isEmpty()) return locked ? Done : Nothing;
    std::optional<ZqMoveProgress::State> howFar;
    try {
        if (locked || has(PROGRESS)) howFar = ZqMoveProgress::open(path + PROGRESS).get();
    } catch (const SxException& e) {
        // Before there was a lock it may have been cut off while it was made. A disk that fails says nothing.
        if (locked || !e.hasTag(ZqMoveProgress::DAMAGED)) throw;
    }
    const bool isStart = !howFar || (howFar->phase == ZqMoveProgress::Heads && howFar->round == 0);
    // A copy of which nothing has taken its place yet.
    const bool isWholeCopy = howFar && howFar->phase == ZqMoveProgress::Swap &&
                             has(ZqImageFiles::IMAGE_JSON) && has(ZqImageFiles::ZQF);
    if (!locked && (isStart || isWholeCopy)) {
        if (!has(NOTE)) return Nothing;
        const ZqOptimizeNote note = readNote();
        if (note.mode == ZqOptimizeNote::Copy) return CopyBegun;
        // The file gets its new size before the first block moves.
        const bool isSame =
            SxFSAction::sizeOf(image + ZqImageFiles::ZQF) == static_cast<int64>(note.from.sizeZqf);
        return isSame || !howFar ? Nothing : Moving;
    }
    if (howFar->phase <= ZqMoveProgress::Batches) return Moving;
    const bool isReplaced = !hasAny(RECORDS) && (howFar->phase != ZqMoveProgress::Swap || !hasAny(COPIED));
    // Somebody who has removed the lock then has an image that is right, and may have gone on with it.
    if (howFar->phase == ZqMoveProgress::Tidy || (!locked && isReplaced)) return Done;
    return Replacing;
}

bool ZqOptimizeFolder::hasAny(std::span<const char* const> names) const {
    return std::any_of(names.begin(), names.end(), [&](const char* name) { return has(name); });
}

void ZqOptimizeFolder::confirm() const {
    if (!has(PROGRESS)) return;
    // A sync alone doesn't write what a failed one has left.
    ZqMoveProgress howFar = ZqMoveProgress::open(path + PROGRESS);
    howFar.set(howFar.get());
}

void ZqOptimizeFolder::requireOwn() const {
    const SxString plain(path.str().substr(0, path.str().size() - 1));
    const std::optional<SxStat> folder = SxFSAction::look(plain);
    if (!folder) return;
    if (folder->kind != SxStat::Dir) {
        throw SxException("'" + plain + "' is no folder of an optimisation; it has to go first", UNIT,
                          __LINE__);
    }
    for (const SxFileInfo& entry : SxFSAction::ls(path)) {
        const std::optional<SxStat> info = SxFSAction::look(entry.getOrig());
        if (!info || isKnown(entry.getName(), *info)) continue;
        throw SxException("'" + path + entry.getName() +
                              "' is none of the plain files of an optimisation; it has to go first",
                          UNIT, __LINE__);
    }
}

void ZqOptimizeFolder::make() const {
    SxFSAction::mkdir_p(path, 0755);
    SxFSAction::syncDir(image);
}

void ZqOptimizeFolder::writeNote(const ZqOptimizeNote& note) const {
    SxFileIO::writeAtomic(path + NOTE, note.toText());
}

ZqOptimizeNote ZqOptimizeFolder::readNote() const {
    return ZqOptimizeNote::parse(SxFileIO::readUtf8(path + NOTE), path + NOTE);
}

uint64 ZqOptimizeFolder::digestNote() const {
    const std::string text = SxFileIO::readUtf8(path + NOTE).str();
    return SxXxh64::of(text.data(), static_cast<int64>(text.size()));
}

void ZqOptimizeFolder::lock() const {
    SxFSAction::syncDir(path);
    SxFSAction::touch(image + ZqImageFiles::OPTIMIZE_LOCK, 0644);
    SxFSAction::syncDir(image);
}

bool ZqOptimizeFolder::hasHints(const SxString& index) {
    const int64 size = SxFSAction::sizeOf(index + ZqImageFiles::HINTS);
    return size >= 0 && size <= ZqOrderHints::MAX_SIZE;
}

void ZqOptimizeFolder::copyIndex(const SxString& from, const SxString& to) {
    // The archive counts only where there is no map beside it.
    const bool hasMap = !SxFSAction::isGone(from + ZqImageFiles::IDX);
    for (const SxString name : INDEX_FILES) {
        if (hasMap && name == ZqImageFiles::IDX_7Z) continue;
        if (name == ZqImageFiles::HINTS && !hasHints(from)) continue;
        if (!SxFSAction::isGone(from + name)) copyFile(from + name, to + name);
    }
}

void ZqOptimizeFolder::takeStaged(bool keepsCopy) const {
    removeProgress();
    for (const SxFileInfo& entry : SxFSAction::ls(path)) {
        const SxString name = entry.getName();
        const bool isKept = keepsCopy && (name == NOTE || name == ZqImageFiles::ZQF);
        if (!isKept && !(name + "/" == STAGED)) SxFSAction::rm_r(entry);
    }
    for (const SxString name : INDEX_FILES) {
        if (!SxFSAction::isGone(getStaged() + name)) SxFSAction::mv(getStaged() + name, path + name);
    }
    SxFSAction::syncDir(path);
    SxFSAction::rm_r(getStaged());
}

uint64 ZqOptimizeFolder::findReplaced() const {
    return (has(ZqImageFiles::AHEAD) ? ZqMoveProgress::ALSO_AHEAD : 0) |
           (has(ZqImageFiles::IDX_MD5) ? ZqMoveProgress::ALSO_IDX_MD5 : 0) |
           (has(ZqImageFiles::HINTS) ? ZqMoveProgress::ALSO_HINTS : 0);
}

void ZqOptimizeFolder::replace(ZqOptimizeNote::Mode mode) const {
    const auto move = [&](const char* name) {
        if (has(name)) SxFSAction::mv(path + name, image + name);
    };
    std::for_each(std::begin(RECORDS), std::end(RECORDS), move);
    if (mode == ZqOptimizeNote::Copy) std::for_each(std::begin(COPIED), std::end(COPIED), move);
    // First the folder that they have come to: a file must be durable under one of its names.
    SxFSAction::syncDir(image);
    SxFSAction::syncDir(path);
}

void ZqOptimizeFolder::removeProgress() const {
    if (!has(PROGRESS)) return;
    SxFSAction::rm(path + PROGRESS);
    SxFSAction::syncDir(path);
}

void ZqOptimizeFolder::remove() const {
    if (!SxFSAction::isGone(path)) {
        // A copy without one of its files would be taken for one that has begun to take its place.
        if (!isLocked()) removeProgress();
        for (const SxFileInfo& entry : SxFSAction::ls(path)) {
            if (!(entry.getName() == PROGRESS)) SxFSAction::rm_r(entry);
        }
        SxFSAction::syncDir(path);
        removeProgress();
    }
    // Whoever finds the lock beside an empty folder knows that all is done.
    if (isLocked()) SxFSAction::rm(image + ZqImageFiles::OPTIMIZE_LOCK);
    if (SxFSAction::isGone(path)) return;
    // Also where another process has removed the lock: it must not come back without the folder.
    SxFSAction::syncDir(image);
    SxFSAction::rm_r(path);
    SxFSAction::syncDir(image);
}
