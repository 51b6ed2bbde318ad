#include "ZqPatchWork.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "SxSymbol.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqPatchFiles.h"
#include "ZqRecordFile.h"

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchWork";
constexpr const char* ORIGIN = "origin.json";
constexpr const char* SCHEMA = "zqorigin-schema.json";
constexpr const char* STAGED = "patch.new/";
constexpr int64 VERSION = 2;

/// A second name for the file, or a copy where that can't be.
void linkOrCopy(const SxString& from, const SxString& to) {
    // What a link leads to, and not the link.
    std::string real;
    SxOs& os = SxOs::get();
    const int found = os.canonical(SxOs::hostPath(from), &real);
    if (found < 0) {
        throw SxException(SxException(SxOs::errorText(found), UNIT, __LINE__), SxFileIO::fileReadErr(from),
                          UNIT, __LINE__);
    }
    if (!SxFSAction::test_f(from)) throw SxException("'" + from + "' is no file", UNIT, __LINE__);
    if (os.link(real, SxOs::hostPath(to)) == 0) {
        // It may have been written a moment ago.
        SxFileIO(to, "rb").sync();
        return;
    }
    ZqImageFolder::requireSpace(SxFileInfo(to).getPath(), static_cast<uint64>(SxFSAction::sizeOf(from)));
    SxFSAction::cp(SxString(real), to);
}

} // namespace

ZqPatchWork::ZqPatchWork(const SxString& image_) : image(image_), path(image + ZqImageFiles::PATCH_WORK) {
}

bool ZqPatchWork::hasCopy() const {
    return !SxFSAction::isGone(getCopy() + ZqPatchFiles::RECORD);
}

bool ZqPatchWork::hasCopyOf(const SxString& digest) const {
    return hasCopy() && SxMd5::file(getCopy() + ZqPatchFiles::RECORD) == digest;
}

bool ZqPatchWork::hasOrigin() const {
    return !SxFSAction::isGone(path + ORIGIN);
}

ZqPatchOrigin ZqPatchWork::readOrigin() const {
    const SxSymbol root = ZqRecordFile::read(path + ORIGIN, SCHEMA);
    ZqPatchOrigin origin;
    origin.source = root.getElem("source", true).toString();
    origin.digest = root.getElem("digest", true).toString();
    ZqRecordFile::get(root, "toGUID", &origin.toGUID);
    ZqRecordFile::get(root, "toMnt", &origin.toMnt);
    const SxSymbol consumed = root.getElem("consumed", false);
    origin.isConsumed = consumed.isValid() && consumed.toBool();
    return origin;
}

void ZqPatchWork::writeOrigin(const ZqPatchOrigin& origin) const {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("version", VERSION);
    root.append("source", origin.source);
    if (origin.isConsumed) root.append("consumed", true);
    root.append("digest", origin.digest);
    root.append("toGUID", origin.toGUID);
    if (!origin.toMnt.isEmpty()) root.append("toMnt", origin.toMnt);
    // An address may hold a password.
    ZqRecordFile::write(root, path + ORIGIN, 0600);
    SxFSAction::syncDir(image);
}

SxString ZqPatchWork::stage() const {
    removeStaged();
    SxFSAction::mkdir_p(path + STAGED, 0755);
    return path + STAGED;
}

void ZqPatchWork::takeStaged() const {
    SxFSAction::syncDir(path + STAGED);
    if (!SxFSAction::isGone(getCopy())) SxFSAction::rm_r(getCopy());
    SxFSAction::mv(path + STAGED, getCopy());
    SxFSAction::syncDir(path);
}

void ZqPatchWork::takeFolder(const SxString& patch) const {
    const SxString staged = stage();
    for (const char* name : ZqPatchFiles::ALL)
        linkOrCopy(patch + name, staged + name);
    takeStaged();
}

void ZqPatchWork::removeStaged() const {
    if (!SxFSAction::isGone(path + STAGED)) SxFSAction::rm_r(path + STAGED);
}

void ZqPatchWork::clear() const {
    if (hasOrigin()) SxFSAction::rm(path + ORIGIN);
    removeStaged();
    if (!SxFSAction::isGone(getCopy())) SxFSAction::rm_r(getCopy());
}

void ZqPatchWork::remove() const {
    if (!SxFSAction::isGone(path)) SxFSAction::rm_r(path);
}
