#include "ZqOptimizeFolder.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxXxh64.h"
#include "ZqImageFiles.h"
#include "ZqMoveProgress.h"
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
constexpr const char* REPLACED[] = {ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON, ZqImageFiles::IDX,
                                    ZqImageFiles::IDX_MD5,    ZqImageFiles::ZQF,      ZqImageFiles::AHEAD,
                                    ZqImageFiles::AHEAD_IDX};

constexpr const char* FILES[] = {ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON,    ZqImageFiles::IDX,
                                 ZqImageFiles::IDX_MD5,    ZqImageFiles::IDX_7Z,      ZqImageFiles::ZQF,
                                 ZqImageFiles::AHEAD,      ZqImageFiles::AHEAD_IDX,   ZqOptimizeFolder::NOTE,
                                 ZqOptimizeFolder::HEADS,  ZqOptimizeFolder::PROGRESS};

/// Copies what a link leads to, and not the link: what it leads to may go.
void copyFile(const SxString& from, const SxString& to) {
    std::string real;
    const int result = SxOs::get().canonical(SxOs::hostPath(from), &real);
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__), SxFileIO::fileReadErr(from),
                          UNIT, __LINE__);
    }
    SxFSAction::cp(SxString(real), to);
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
    if (mode == InPlace) {
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

bool ZqOptimizeFolder::isEmpty() const {
    return SxFSAction::isGone(path) || SxFSAction::ls(path).isEmpty();
}

bool ZqOptimizeFolder::isLocked() const {
    return !SxFSAction::isGone(image + ZqImageFiles::OPTIMIZE_LOCK);
}

bool ZqOptimizeFolder::isDone() const {
    return isLocked() && !SxFSAction::isGone(path) && isEmpty();
}

bool ZqOptimizeFolder::lacksLock() const {
    if (isLocked() || !has(PROGRESS)) return false;
    try {
        const ZqMoveProgress::State state = ZqMoveProgress::open(path + PROGRESS).get();
        return state.phase == ZqMoveProgress::Batches || state.phase == ZqMoveProgress::Records ||
               (state.phase == ZqMoveProgress::Heads && state.round > 0);
    } catch (const SxException& e) {
        // Cut off while it was made, before anything moved. A disk that fails says nothing.
        if (!e.hasTag(ZqMoveProgress::DAMAGED)) throw;
        return false;
    }
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
        const SxString name = entry.getName();
        const std::optional<SxStat> info = SxFSAction::look(entry.getOrig());
        if (!info) continue;
        const bool isForecast = name + "/" == FORECAST && info->kind == SxStat::Dir;
        const bool isKnown =
            std::any_of(std::begin(FILES), std::end(FILES), [&](const char* file) { return name == file; }) ||
            SxFileIO::isTemporaryName(name, NOTE);
        if (isForecast || (isKnown && info->kind == SxStat::File)) continue;
        throw SxException("'" + path + name +
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

void ZqOptimizeFolder::copyIndex(const SxString& from, const SxString& to) {
    for (const char* name :
         {ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON, ZqImageFiles::IDX, ZqImageFiles::IDX_MD5}) {
        if (!SxFSAction::isGone(from + name)) copyFile(from + name, to + name);
    }
    // The archive counts only where there is no map beside it.
    if (SxFSAction::isGone(to + ZqImageFiles::IDX))
        copyFile(from + ZqImageFiles::IDX_7Z, to + ZqImageFiles::IDX_7Z);
}

void ZqOptimizeFolder::replace() const {
    for (const char* name : REPLACED) {
        if (has(name)) SxFSAction::mv(path + name, image + name);
    }
    // First the folder that they have come to: a file must be durable under one of its names.
    SxFSAction::syncDir(image);
    SxFSAction::syncDir(path);
}

void ZqOptimizeFolder::removeFile(const char* name) const {
    if (has(name)) SxFSAction::rm(path + name);
}

void ZqOptimizeFolder::removeRecords() const {
    for (const SxFileInfo& entry : SxFSAction::ls(path)) {
        if (!(entry.getName() == NOTE) && !(entry.getName() == ZqImageFiles::ZQF)) SxFSAction::rm_r(entry);
    }
}

void ZqOptimizeFolder::remove() const {
    if (!SxFSAction::isGone(path)) {
        for (const SxFileInfo& entry : SxFSAction::ls(path)) {
            if (!(entry.getName() == PROGRESS)) SxFSAction::rm_r(entry);
        }
        SxFSAction::syncDir(path);
        removeFile(PROGRESS);
        SxFSAction::syncDir(path);
    }
    // Whoever finds the lock beside an empty folder knows that all is done.
    if (isLocked()) {
        SxFSAction::rm(image + ZqImageFiles::OPTIMIZE_LOCK);
        SxFSAction::syncDir(image);
    }
    if (SxFSAction::isGone(path)) return;
    SxFSAction::rm_r(path);
    SxFSAction::syncDir(image);
}
