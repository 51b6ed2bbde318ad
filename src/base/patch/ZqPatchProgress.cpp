#include "ZqPatchProgress.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"

#include <bit>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr const char* UNIT = "src/base/ZqPatchProgress";

/// The file in its memory layout.
struct Descriptor {
    SxMd5::Digest patchId;
    uint32 stage, part;
    uint64 reserved[2];
};
constexpr int64 SIZE = sizeof(Descriptor);
static_assert(SIZE == 40);

SxException damage(const SxString& what) {
    return SxException(SxException(what, UNIT, __LINE__), "Corrupted resume descriptor", UNIT, __LINE__);
}

Descriptor load(const SxString& file) {
    if (SxFSAction::sizeOf(file) < 0) {
        throw SxException("Patch progress file '" + file + "' not found", UNIT, __LINE__);
    }
    SxFileIO io(file, "rb");
    const int64 size = io.getSize();
    Descriptor found{};
    if (size != SIZE || io.readBuffer(&found, SIZE) != SIZE) {
        throw damage("'" + file + "' has " + size + " bytes, and not " + SIZE);
    }
    // A step runs where stage and part are its own, and counts as done anywhere else. So a pair that no step
    // has would end the patch at once, as if all of it were done.
    const bool isForPart = found.stage < ZqPatchProgress::FinalizePatch;
    if (found.stage > ZqPatchProgress::PerformLockFinish || (!isForPart && found.part != 0)) {
        throw damage("'" + file + "' states stage " + found.stage + " of part " + found.part +
                     ", which there isn't");
    }
    return found;
}

} // namespace

void ZqPatchProgress::read(const SxString& file) {
    try {
        const Descriptor found = load(file);
        patchId = SxMd5(found.patchId);
        stage = found.stage;
        part = found.part;
    } catch (const SxException& e) {
        throw SxException(e, "Reading of patch progress failed.", UNIT, __LINE__);
    }
}

void ZqPatchProgress::write(const SxString& file) const {
    try {
        const Descriptor next{patchId.getDigest(), stage, part, {}};
        SxFileIO io;
        io.create(file + ".tmp", 0600);
        io.write(next);
        // A resume believes what stands there, so the bytes come to the device before the name, and the name
        // before the step that the next descriptor tells of.
        io.sync();
        io.close();
        SxFSAction::mv(file + ".tmp", file);
        SxFSAction::syncDir(SxFileInfo(file).getPath());
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write patch progress file.", UNIT, __LINE__);
    }
}
