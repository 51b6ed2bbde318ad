// What the launcher steps of a mount take, and those of its unmount: a title with 20 Epic manifests, a store
// folder, a folder of EA Origin and a library of Robot Cache, beside a player's 500 manifests. On the disk of
// $TMPDIR (/tmp where not set), since what they wait for is the disk: the bound in the same run is 6 syncs of
// a small file and its folder, as the record needs them. The goal is 100 ms for a mount.

#include "Folder.h"
#include "Ratio.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqEpicLibrary.h"
#include "ZqLaunchCommand.h"
#include "ZqMachineRoot.h"
#include "ZqOriginLibrary.h"
#include "ZqRobotLibrary.h"

namespace {

constexpr int N_PLAYERS = 500, N_TITLES = 20, N_SYNCS = 6;
constexpr const char* APP_CONFIG =
    R"({"client_language": 1, "client_run_at_startup": false, "formatVersion": 3,
  "gameOrders": [], "hide_ticker": true, "hours_mined": "", "iron_balance": "",
  "last_login": {"password": "", "remember_password": true, "username": ""}, "libraries": [], "miner_id": "",
  "miningRewardSetConfigurationId": "", "mining_configs": {"cpuLiftOff": false, "cpu_mining_state": false,
  "first_time_mining": true, "liftOff": false, "gpu_mining_state": false}, "mining_reward_fromdate": "",
  "mining_reward_todate": "", "selected_server": 2, "window": {"close_behaviour": 0, "hight": 6, "width": 8}})";

void put(const SxString& path, const SxString& text) {
    SxFSAction::mkdir_p(SxFileInfo(path).getPath());
    SxFileIO(path, "wb").write(text);
}

SxString manifest(const SxString& guid) {
    return R"({"LaunchCommand": "", "LaunchExecutable": "a.exe", "MandatoryAppFolderName": "Fern",
        "MainWindowProcessName": "", "AppName": "Fern", "MainGameAppName": "Fern", "InstallationGuid": ")" +
           guid + "\", \"AppCategories\": [\"public\", \"games\"], \"InstallSize\": 123456789}";
}

/// A machine root with launchers, and the drive E: as a folder.
void layOut(const SxString& folder) {
    const SxString root = folder + "root", drive = folder + "drive/TAVRIN-protected/app/";
    SxFSAction::mkdir_p(root + "/dosdevices");
    SxOs::get().symlink((folder + "drive").str(), (root + "/dosdevices/e:").str());
    ZqMachineRoot::set(root);
    for (int i = 0; i < N_PLAYERS; ++i) {
        const SxString guid = SxString("PLAYER") + i;
        put("C:/ProgramData/Epic/EpicGamesLauncher/Data/Manifests/" + guid + ".item", manifest(guid));
    }
    put("C:/ProgramData/RobotCache/RobotCacheClient/config/appConfig.json", APP_CONFIG);
    for (int i = 0; i < N_TITLES; ++i) {
        const SxString guid = SxString("TITLE") + i;
        put(drive + "epicitems/" + (i == 0 ? SxString("epic") : guid) + ".item", manifest(guid));
    }
    put(drive + "Fern/.egstore/TITLE0.manifest", SxString(std::string(500'000, 'x')));
    put(drive + "Fern/.egstore/TITLE0.mancpn", "x");
    put(drive + "Origin/LocalContent/Fern/fern.mfst", "x");
}

void steps(benchmark::State& state) {
    const bench::Folder folder;
    layOut(folder.path);
    std::vector<double> mountMs, umountMs, toSyncs;
    for (auto _ : state) {
        const double bound = bench::secondsOf([&] {
            for (int i = 0; i < N_SYNCS; ++i)
                SxFileIO::writeAtomic(folder.path + "bound", "x");
        });
        const double mount = bench::secondsOf([] {
            ZqLauncherRecord record;
            ZqEpicLibrary(&record).make("/image", "E:");
            ZqOriginLibrary(&record).make("/image", "E:");
            ZqRobotLibrary(&record).make("/image", "E:");
        });
        umountMs.push_back(1e3 * bench::secondsOf([] {
                               ZqLauncherRecord record;
                               ZqEpicLibrary(&record).undo("/image");
                               ZqOriginLibrary(&record).undo("/image");
                               ZqRobotLibrary(&record).undo("/image");
                               record.save();
                           }));
        state.SetIterationTime(mount);
        mountMs.push_back(mount * 1e3);
        toSyncs.push_back(mount / bound);
    }
    state.counters["mount_ms"] = bench::median(mountMs);
    state.counters["umount_ms"] = bench::median(umountMs);
    state.counters["mount/syncs"] = bench::median(toSyncs);
    ZqMachineRoot::set("");
}

BENCHMARK(steps)->Unit(benchmark::kMillisecond)->Iterations(21)->UseManualTime();

} // namespace

BENCHMARK_MAIN();
