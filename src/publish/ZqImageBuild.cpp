#include "ZqImageBuild.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqBlockOrder.h"
#include "ZqBlockWriter.h"
#include "ZqBlocks.h"
#include "ZqDriveLayout.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageParams.h"
#include "ZqImageStaging.h"
#include "ZqLog.h"
#include "ZqRawFile.h"
#include "ZqRedirection.h"
#include "ZqSourceTree.h"
#include "ZqSysEnv.h"

#include <algorithm>
#include <optional>

namespace {

constexpr const char* UNIT = "src/publish/ZqImageBuild";
constexpr int64 BLOCK = ZqBlocks::SIZE;
constexpr const char* READY_TEXT = "This drive can be read.\n";
constexpr uint64 MAX_FREE = uint64{1} << 42; ///< bytes; the file system has up to 2^32 blocks
constexpr uint64 ROOM = 4 << 20;             ///< bytes for records, superblocks and the like
constexpr uint64 ROOM_FOR_ENTRY = 1024;      ///< bytes of metadata for a file or folder
constexpr int64 MAX_RUN = 256;               ///< blocks that are read at once

bool isZero(const char* block) {
    static const std::vector<char> zeros(BLOCK, '\0');
    return std::equal(zeros.begin(), zeros.end(), block);
}

uint64 deviceOf(const SxString& folder) {
    SxStat info;
    const int result = SxOs::get().stat(SxOs::hostPath(folder), &info);
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot look at folder '" + folder + "'", UNIT, __LINE__);
    }
    return info.device;
}

/// A path as the folders of a drive have it: no slash in front, at the end, or twice.
SxString cleanPath(const SxString& path) {
    SxList<SxString> parts;
    for (const SxString& part : ZqSysEnv::unifySlashes(path).tokenize('/')) {
        if (!(part == ".")) parts << part;
    }
    return SxString::join(parts, "/");
}

/// A path as an external program finds it, and doesn't take it for an option.
SxString toolPath(const SxString& path) {
    const SxString host = SxOs::hostPath(SxFileInfo(path).getAbsPath());
    return path.endsWith("/") ? ZqImageFolder::prefix(host) : host;
}

/// The digest as a GUID: that of a name-based one by MD5 (RFC 4122, version 3).
SxString toGuid(const SxString& md5) {
    constexpr const char* VARIANTS = "89AB";
    std::string hex = md5.toUpper().str();
    hex[12] = '3';
    const char digit = hex[16];
    hex[16] = VARIANTS[(digit <= '9' ? digit - '0' : digit - 'A' + 10) & 3];
    return SxString::join(
        {hex.substr(0, 8), hex.substr(8, 4), hex.substr(12, 4), hex.substr(16, 4), hex.substr(20)}, "-");
}

} // namespace

/// Cuts a RAW image into blocks: writes `img.zqf` and `img.idx`.
class ZqImageBuild::Cutter {
public:
    Cutter(const SxString& raw_, const SxString& folder_, const std::vector<ZqBlockKind>& kinds_,
           ZqTaskMon* job_)
        : raw(raw_, "rb"),
          folder(folder_),
          kinds(kinds_),
          job(job_),
          map(static_cast<int64>(kinds_.size())),
          writer(folder_) {
        std::fill(map.begin(), map.end(), ZqImage::NO_ENTRY);
    }

    void run() {
        cutAhead(ZqBlockKind::Metadata);
        cutAhead(ZqBlockKind::Early);
        nAhead = nZqf;
        cutRest();
        zqfDigest = writer.finish();
        writeMap(map);
    }

    /// The same in the order that the traces give to the image `name`, whose files lie in `rows` where these
    /// are known. It reads the drive twice: which blocks are zeros, and the build id, which traces must be
    /// of, are known only after the first pass.
    ZqBlockOrder runByTraces(const SxList<SxString>& traces, const SxString& name,
                             const std::optional<std::vector<ZqFileTable::Row>>& rows) {
        ZqOrderImage image{name, {}, std::vector<bool>(kinds.size()), {}, {}};
        survey(&image.included);
        image.buildId = rawDigest;
        if (rows) image.files.emplace(rawDigest, kinds.size(), *rows);
        for (const ZqBlockKind kind : {ZqBlockKind::Metadata, ZqBlockKind::Early}) {
            for (size_t rawIdx = 0; rawIdx < kinds.size(); ++rawIdx) {
                if (kinds[rawIdx] == kind && image.included[rawIdx]) image.front.append(rawIdx);
            }
        }
        ZqBlockOrder order(image, traces, [this](uint64 nBytes) {
            refuseStop();
            job->addNCurrent(nBytes);
        });
        cutInOrder(order.getOrder());
        nAhead = order.getNFront();
        nZqf = static_cast<uint64>(order.getOrder().getSize());
        zqfDigest = writer.finish();
        writeMap(order.makeMap());
        return order;
    }

    uint64 nAhead = 0, nZqf = 0; ///< blocks
    SxString rawDigest, zqfDigest;

private:
    void refuseStop() const {
        if (job->stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    }

    void cutAhead(ZqBlockKind kind) {
        const auto n = static_cast<int64>(kinds.size());
        SxArray<char> buffer(MAX_RUN * BLOCK);
        for (int64 rawIdx = 0, count = 0; rawIdx < n; rawIdx += std::max<int64>(count, 1)) {
            for (count = 0; count < MAX_RUN && rawIdx + count < n && isOf(kind, rawIdx + count);)
                ++count;
            if (count == 0) continue;
            readAt(rawIdx, buffer.data(), count);
            include(kind, rawIdx, buffer.data(), count);
        }
    }

    void cutRest() {
        readAll([this](int64 rawIdx, const char* bytes, int64 count) {
            include(ZqBlockKind::File, rawIdx, bytes, count);
        });
    }

    void survey(std::vector<bool>* included) {
        readAll([&](int64 rawIdx, const char* bytes, int64 count) {
            for (int64 i = 0; i < count; ++i)
                (*included)[static_cast<size_t>(rawIdx + i)] = !isZero(bytes + i * BLOCK);
        });
    }

    void cutInOrder(const SxArray<uint64>& order) {
        SxArray<char> buffer(MAX_RUN * BLOCK);
        for (int64 zqfIdx = 0, count = 1; zqfIdx < order.getSize(); zqfIdx += count) {
            const uint64 rawIdx = order(zqfIdx);
            const int64 most = std::min(MAX_RUN, order.getSize() - zqfIdx);
            for (count = 1; count < most && order(zqfIdx + count) == rawIdx + static_cast<uint64>(count);)
                ++count;
            readAt(static_cast<int64>(rawIdx), buffer.data(), count);
            writer.append(buffer.data(), count * BLOCK);
            job->addNCurrent(static_cast<uint64>(count * BLOCK));
        }
    }

    void writeMap(const SxArray<uint64>& entries) const {
        ZqMapWriter idx(folder);
        for (const uint64 entry : entries)
            idx.append(entry);
        idx.finish();
    }

    /// Takes the digest of the drive, and shows all of its blocks to `look` on the way.
    template<class Look>
    void readAll(Look&& look) {
        ZqDigestPipe pipe("raw md5");
        const auto n = static_cast<int64>(kinds.size());
        raw.adviseSequential();
        for (int64 rawIdx = 0; rawIdx < n;) {
            ZqDigestPipe::Chunk* chunk = pipe.next();
            const int64 count = std::min(n - rawIdx, ZqDigestPipe::CHUNK / BLOCK);
            readAt(rawIdx, chunk->bytes.data(), count);
            look(rawIdx, chunk->bytes.data(), count);
            chunk->used = count * BLOCK;
            pipe.take(chunk);
            rawIdx += count;
            job->addNCurrent(static_cast<uint64>(count * BLOCK));
        }
        rawDigest = pipe.finish();
    }

    bool isOf(ZqBlockKind kind, int64 rawIdx) const { return kinds[static_cast<size_t>(rawIdx)] == kind; }

    void readAt(int64 rawIdx, char* bytes, int64 count) {
        refuseStop();
        raw.seek(rawIdx * BLOCK);
        if (raw.readBuffer(bytes, count * BLOCK) != count * BLOCK) {
            throw SxException(SxFileIO::fileReadErr(raw.getFilePath()), UNIT, __LINE__);
        }
    }

    /// Takes the blocks of that kind that aren't zero, of `count` from `rawIdx` on.
    void include(ZqBlockKind kind, int64 rawIdx, const char* bytes, int64 count) {
        for (int64 i = 0; i < count; ++i) {
            const char* block = bytes + i * BLOCK;
            if (!isOf(kind, rawIdx + i) || isZero(block)) continue;
            writer.append(block, BLOCK);
            map(rawIdx + i) = nZqf++;
        }
    }

    SxFileIO raw;
    const SxString folder;
    const std::vector<ZqBlockKind>& kinds;
    ZqTaskMon* job;
    SxArray<uint64> map; ///< by RAW index
    ZqBlockWriter writer;
};

ZqImageBuild::ZqImageBuild(const SxString& target_, const SxString& source_, const Options& options_)
    : target(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(target_))),
      source(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(source_))),
      options(options_) {
    setThreadName("image build");
}

void ZqImageBuild::main() {
    if (options.freeBytes > 0 && options.fileSystem != ZqDriveMaker::Ext4) {
        throw SxException("Free room on the drive needs the file system ext4; nothing is written to " +
                              ZqDriveMaker::typeToString(options.fileSystem),
                          UNIT, __LINE__);
    }
    if (options.freeBytes > MAX_FREE) {
        throw SxException("A drive has at most " + SxString(MAX_FREE) + " bytes of free room", UNIT,
                          __LINE__);
    }
    const auto maker = ZqDriveMaker::get(options.fileSystem);
    ZqImageStaging::refuseOverlap(source, target);
    if (!options.rawDir.isEmpty()) {
        ZqImageStaging::refuseOverlap(source, options.rawDir);
        ZqImageStaging::refuseOverlap(target, options.rawDir);
    }
    refuseBadTraces();
    const ZqSourceTree tree(source, *this, options.followsLinks);
    refuseOverlaps(tree);
    tree.requireReadable(*this);
    nFiles = tree.count(SxStat::File);
    nFolders = tree.count(SxStat::Dir);
    nLinks = tree.count(SxStat::Link);
    nSkipped = tree.getNSkipped();
    nFollowed = static_cast<int64>(tree.getFollowed().size());
    // Such a folder is as a rule a slip, for instance what a build that failed has left. It mustn't cost a
    // good image.
    if (nFiles == 0) {
        throw SxException("The folder '" + source + "' holds no file to make a drive of", UNIT, __LINE__);
    }
    const ZqAppParams app = makeApp(tree);
    if (!app.cmd.isEmpty()) commandDoubt = doubtOf(app.cmd, tree);
    // The files are placed, made a file system of, and cut into blocks.
    setNTotal(3 * tree.getBytes());
    build(tree, *maker, app);
}

/// A link that is followed can lead to what is about to be replaced.
void ZqImageBuild::refuseOverlaps(const ZqSourceTree& tree) const {
    for (const SxString& path : tree.getFollowed()) {
        ZqImageStaging::refuseOverlap(path, target);
        if (!options.rawDir.isEmpty()) ZqImageStaging::refuseOverlap(path, options.rawDir);
    }
}

/// What would fail after all the work is better found now.
void ZqImageBuild::refuseBadTraces() const {
    for (const SxString& trace : options.traces) {
        if (!ZqImageStaging::liesIn(trace, target)) continue;
        throw SxException("The trace '" + trace + "' would be removed with what '" + target +
                              "' holds; copy it first",
                          UNIT, __LINE__);
    }
}

void ZqImageBuild::refuseStop() const {
    if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

ZqAppParams ZqImageBuild::makeApp(const ZqSourceTree& tree) const {
    const bool writable = options.fileSystem == ZqDriveMaker::Ext4;
    ZqAppParams app;
    app.guid = SxString();
    if (options.appTemplate.isEmpty()) {
        app.cmd = SxString();
        app.mountMode = writable ? ZqDriveKinds::ReadTWLayer : ZqDriveKinds::ReadOnly;
    } else {
        app.readFile(options.appTemplate);
    }
    if (app.mountMode == ZqDriveKinds::ReadWrite && !writable) {
        throw SxException("The mount mode 'rw' needs the file system ext4; " +
                              ZqDriveMaker::typeToString(options.fileSystem) + " can't be written to",
                          UNIT, __LINE__);
    }
    // What no mount would take is better found now.
    ZqAppParams named = app;
    if (named.guid.isEmpty()) named.guid = "x"; // comes from the drive
    const ZqRedirection redirection(named);
    if (!options.cmd.isEmpty()) app.cmd = commandFor(tree);
    if (!options.args.isEmpty()) app.args = options.args;
    if (!options.name.isEmpty()) app.name = options.name;
    if (!options.window.isEmpty()) app.window = options.window;
    return app;
}

SxString ZqImageBuild::commandFor(const ZqSourceTree& tree) const {
    const SxString path = cleanPath(options.cmd);
    if (tree.holdsFile(path)) return SxString(ZqDriveLayout::DRIVE) + ZqDriveLayout::APP_DIR + path;
    // A path that isn't there is a slip; a bare name may be a program of the machine.
    const bool relative = options.cmd.contains("/") && !options.cmd.startsWith("/") &&
                          !options.cmd.contains("{{") && !options.cmd.contains(":");
    if (relative) {
        throw SxException("The command '" + options.cmd + "' is no file of the folder '" + source + "'", UNIT,
                          __LINE__);
    }
    return options.cmd;
}

/// A program that only players have is no failure.
SxString ZqImageBuild::doubtOf(const SxString& cmd, const ZqSourceTree& tree) const {
    const std::string inApp = std::string(ZqDriveLayout::DRIVE) + ZqDriveLayout::APP_DIR;
    const bool isOfApp = cmd.startsWith(inApp);
    if (isOfApp && tree.holdsFile(cleanPath(SxString(cmd.str().substr(inApp.size()))))) return {};
    // What lies elsewhere on the drive, or in a Windows prefix, can't be told here.
    if (!isOfApp && (cmd.contains("{{") || cmd.contains(":") || ZqSysEnv::isProgram(cmd))) return {};
    return "The command '" + cmd + "' is neither a file of the folder '" + source +
           "' nor a program of this machine; players need it on theirs";
}

SxList<SxString> ZqImageBuild::earlyPaths(const ZqAppParams& app) {
    SxList<SxString> paths = {ZqDriveLayout::READY_FILE};
    for (const SxList<SxString>* names : {&app.dirmap, &app.filemap}) {
        for (const SxString& name : *names)
            paths << ZqDriveLayout::PROTECTED_DIR + cleanPath(name);
    }
    return paths;
}

void ZqImageBuild::requireSpace(const ZqSourceTree& tree, const ZqDriveMaker& maker) const {
    const uint64 content =
        tree.getNBlocks() * static_cast<uint64>(BLOCK) + ROOM + ROOM_FOR_ENTRY * tree.getEntries().size();
    const uint64 raw = content + maker.getOverhead(tree, options.freeBytes);
    const uint64 device = deviceOf(target);
    // Copies of files are removed before the ZqF file is written, so the larger of the two counts. The RAW
    // image stands beside either.
    uint64 need = std::max(content, tree.bytesToCopy(device));
    if (options.rawDir.isEmpty() || deviceOf(options.rawDir) == device) {
        need += raw;
    } else {
        ZqImageFolder::requireSpace(options.rawDir, raw);
    }
    ZqImageFolder::requireSpace(target, need);
}

ZqDriveMaker::Drive ZqImageBuild::makeDrive(const ZqSourceTree& tree, const ZqDriveMaker& maker,
                                            const SxString& scratch, const SxString& raw,
                                            const ZqAppParams& app) {
    const SxString root = scratch + "tree/", ready = root + ZqDriveLayout::READY_FILE;
    ZqSourceTree::makeFolder(root);
    ZqSourceTree::makeFolder(root + ZqDriveLayout::PROTECTED_DIR);
    tree.placeIn(root + ZqDriveLayout::APP_DIR, this);
    refuseStop();
    SxFileIO file(ready, "wb", 0644);
    file.write(SxString(READY_TEXT));
    file.close();
    ZqSourceTree::setPermissions(ready, 0644);

    const uint64 before = getNCurrent();
    const auto look = [&] {
        SxStat info;
        if (SxOs::get().stat(SxOs::hostPath(raw), &info) < 0) return;
        setNCurrent(before + std::min(static_cast<uint64>(info.allocated), tree.getBytes()));
    };
    ZqDriveMaker::Drive drive = maker.make({toolPath(root), toolPath(raw), toolPath(scratch), &tree,
                                            earlyPaths(app), this, look, options.freeBytes});
    setNCurrent(before + tree.getBytes());
    SxFSAction::rm_r(root);
    return drive;
}

void ZqImageBuild::build(const ZqSourceTree& tree, const ZqDriveMaker& maker, const ZqAppParams& record) {
    ZqImageStaging staging(target, "image build", options.mayDiscard);
    std::optional<ZqRawFile> keptRaw;
    if (!options.rawDir.isEmpty()) keptRaw.emplace(options.rawDir);
    const SxString folder = staging.begin(0), scratch = folder + "scratch/";
    requireSpace(tree, maker);
    SxFSAction::mkdir_p(scratch, 0700);
    const SxString raw = keptRaw ? keptRaw->getPath() : scratch + ZqRawFile::NAME;

    ZqDriveMaker::Drive drive;
    try {
        drive = makeDrive(tree, maker, scratch, raw, record);
    } catch (const SxException& e) {
        if (stopRequested()) throw;
        throw SxException(e, "Cannot make a drive of the folder '" + source + "'", UNIT, __LINE__);
    }
    nRaw = drive.kinds.size();
    // An order takes a second pass; see runByTraces().
    const uint64 nPasses = options.traces.isEmpty() ? 1 : 2;
    setNTotal(getNCurrent() + nPasses * nRaw * uint64{BLOCK} + ZqOrderRuns::countBytes(options.traces));
    Cutter cutter(raw, folder, drive.kinds, this);
    ZqAppParams app = record;
    std::optional<ZqBlockOrder> order;
    if (options.traces.isEmpty()) {
        cutter.run();
    } else {
        order = cutter.runByTraces(options.traces, source, drive.files);
        nNamed = order->getNCore() + order->getNTail();
        left = order->getLeft();
        app.loadprofile = order->getProfile();
    }
    nIncluded = cutter.nZqf;
    sizeMnt = cutter.nAhead * static_cast<uint64>(BLOCK);

    ZqImageParams image;
    image.guid = toGuid(cutter.rawDigest);
    image.sizeRaw = static_cast<int64>(nRaw) * BLOCK;
    image.filesystem = "none"; // the key knows none of our types; `volume` has it
    if (order) image.order = order->getBasis();
    image.volume = ZqDriveMaker::typeToString(options.fileSystem);
    image.write(folder);
    if (app.guid.isEmpty()) app.guid = image.guid;
    app.sizeZqf = nIncluded * static_cast<uint64>(BLOCK);
    app.sizeIdx = nRaw * sizeof(uint64);
    app.sizeMnt = sizeMnt;
    app.checksumZqf = cutter.zqfDigest;
    app.checksumMnt = cutter.rawDigest;
    app.checksumIdx = SxMd5::file(folder + ZqImageFiles::IDX, nullptr);
    if (order) order->writeHints(folder, app.checksumIdx);
    app.write(folder);
    if (drive.files) ZqFileTable(app.checksumMnt, nRaw, std::move(*drive.files)).write(folder);
    if (keptRaw) SxFileIO(raw, "r+b").sync();
    SxFSAction::rm_r(scratch);
    refuseStop();
    staging.commit(app.checksumMnt);
    if (keptRaw) keptRaw->commit();
    made = std::move(app);
    complete = true;
}
