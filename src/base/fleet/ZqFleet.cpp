#include "ZqFleet.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxLatch.h"
#include "ZqFleetFiles.h"
#include "ZqFleetLoad.h"
#include "ZqFleetStore.h"
#include "ZqImageFolder.h"
#include "ZqJobsTogether.h"
#include "ZqNewFolder.h"

namespace {

constexpr const char* UNIT = "src/base/fleet/ZqFleet";
constexpr const char* PARQUET_FILE = "runs.parquet";
constexpr int64 STOP_LOOK_MS = 50;

double secondsSince(int64 startNs) {
    return static_cast<double>(SxClock::get().steadyNs() - startNs) / 1e9;
}

} // namespace

ZqFleet::ZqFleet(const Settings& settings_) : settings(settings_) {
    figures.by = settings.by;
}

ZqFleet::~ZqFleet() = default;

/// What would fail at the end is told before hours of reading.
void ZqFleet::requireOutputs() const {
    if (!settings.parquet.isEmpty() && SxFSAction::exists(settings.parquet) &&
        !(SxFSAction::test_d(settings.parquet) && SxFSAction::ls(settings.parquet).isEmpty())) {
        throw SxException("Folder '" + settings.parquet + "' isn't empty; name another for Parquet", UNIT,
                          __LINE__);
    }
    const SxFileInfo store(settings.store);
    if (settings.store.isEmpty() || store.isFile() || !(store.exists() || store.isLink())) return;
    throw SxException("The runs can't be kept in '" + settings.store + "', which isn't a plain file", UNIT,
                      __LINE__);
}

void ZqFleet::main() {
    requireOutputs();
    SxList<SxString> outputs = settings.outputs;
    if (!settings.store.isEmpty()) outputs.append(settings.store);
    const ZqFleetFiles files(settings.paths, outputs);
    figures.nFiles = static_cast<int64>(files.getPaths().size());
    setNTotal(files.getNBytes());

    const bool isNew = !settings.store.isEmpty() && SxFSAction::isGone(settings.store);
    const SxString folder =
        settings.parquet.isEmpty() ? SxString() : SxFileInfo(settings.parquet).getAbsPath();
    {
        ZqFleetStore store({settings.scratch, isNew ? SxString() : settings.store});
        SxLatch isDone;
        ZqJobsTogether watch;
        // A statement of the database doesn't look at the flag.
        watch.start("fleet-stop", [&] {
            while (!isDone.isSetWithin(STOP_LOOK_MS))
                if (stopRequested()) store.stop();
        });
        try {
            collect(&store, files.getPaths());
        } catch (...) {
            isDone.set();
            throw;
        }
        isDone.set();
    }
    if (isNew) SxFSAction::mv(ZqFleetStore::fileIn(settings.scratch), settings.store);
}

void ZqFleet::collect(ZqFleetStore* store, const std::vector<SxString>& paths) {
    int64 startNs = SxClock::get().steadyNs();
    ZqFleetLoad load(store->getDatabase(), ZqFleetStore::TABLE, paths);
    const ZqFleetLoad::Result result =
        load.run([this] { return stopRequested(); }, [this](uint64 n) { setNCurrent(n); });
    figures.nRecords = result.nTaken;
    figures.nBad = result.nBad;
    for (const ZqRecordFault& fault : result.faults)
        figures.faults.push_back({paths[fault.file], fault.line, fault.text});
    if (result.nTaken == 0) {
        throw SxException(paths.empty() ? "There is no file with records of runs"
                                        : "No record of a run could be read",
                          UNIT, __LINE__);
    }
    store->join();
    figures.loadSec = secondsSince(startNs);
    store->keep();
    if (!settings.parquet.isEmpty()) writeParquet(store);
    startNs = SxClock::get().steadyNs();
    store->count(&figures);
    figures.countSec = secondsSince(startNs);
}

void ZqFleet::writeParquet(ZqFleetStore* store) {
    const SxString folder = ZqImageFolder::prefix(settings.parquet);
    try {
        // Made elsewhere, so that nobody finds a part of it here.
        const SxString file = store->writeParquet();
        SxFileIO(file, "r+b").sync();
        ZqNewFolder made(settings.parquet);
        SxFSAction::mv(file, folder + PARQUET_FILE);
        SxFSAction::syncDir(settings.parquet);
        made.sync();
        made.keep();
    } catch (const SxException& e) {
        throw SxException(e, "The runs can't be written to '" + folder + PARQUET_FILE + "'", UNIT, __LINE__);
    }
}
