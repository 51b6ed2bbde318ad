#pragma once

#include "SxList.h"
#include "SxString.h"
#include "VirtualClock.h"
#include "ZqVolume.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

/// Stands in the place of the drive service, its control library and the system's volumes, for one image at a
/// time, on the virtual clock. Every call is counted by its name ("MountImage", "GuardOn", "dismount", ...)
/// and can be made to fail; calls that change something are noted in order. In force from construction to
/// destruction.
class ScriptedDriver {
public:
    /// `volume`: the folder that the drive E: shows.
    explicit ScriptedDriver(std::string volume);
    ~ScriptedDriver();
    ScriptedDriver(const ScriptedDriver&) = delete;
    ScriptedDriver& operator=(const ScriptedDriver&) = delete;

    static ScriptedDriver& get();

    /// The `nth` coming call of that name fails, and all later ones, with `reason` as its words.
    void fail(const std::string& name, int nth = 1, const std::string& reason = "");
    /// Calls of that name succeed again.
    void mend(const std::string& name) { faults.erase(name); }
    /// Notes a call; gives whether it is to succeed.
    bool enter(const std::string& name, const std::string& note = "");
    /// The state that is due at this time.
    void settle();
    /// The queue as the service hands it out.
    std::vector<uint64> pop(uint64 max);
    void take(uint64 zqfIdx, const std::string& bytes);
    /// From now on the service is silent for so long: calls wait for it, and fail as silent where it lasts
    /// longer than an answer may take.
    void silence(int64 ms) { silentUntilMs = clock().elapsedMs() + ms; }
    /// Calls of all names so far.
    int64 nCalls = 0;

    // How long things take, in milliseconds; NEVER for what doesn't come.
    static constexpr int64 NEVER = int64{1} << 40;
    int64 letterAfter = 0, filesAfter = 0, guardAfter = 0, goneAfter = 0, markerStays = 0;
    SxString drive = "E:"; ///< what the service says; its link leads there unless `hasLink` says otherwise
    bool hasLink = true;
    /// What the service says of it once it was released: the time of the disk that another client has made
    /// then.
    uint64 nextMadeNs = 0;
    SxString diskFailure; ///< what the service says of the disk
    bool isBusy = false;
    bool isVisible = true; ///< the volume, from the process's mount namespace
    uint64 nProgress = 0;  ///< how often what was written is said to have come on
    bool answersPing = true;
    std::string version = "3.4.10";
    /// Blocks that readers wait for; a delivery takes them away, unless `keepsQueue`.
    std::vector<uint64> queue;
    bool keepsQueue = false;
    int64 returnAfter = 0;                   ///< ms until a block that was popped can be popped again
    std::map<uint64, std::string> delivered; ///< bytes, by ZqF index
    /// Letters of the machine with what they say of themselves; that of the image is added.
    std::map<std::string, ZqVolumeIdentity> otherDrives;
    std::vector<std::string> otherImages; ///< that are mounted, too
    /// Runs before each call.
    std::function<void(const std::string& name)> onCall;

    // The one disk.
    bool mounted = false, ready = false, removable = false, suspended = false, monitored = false;
    std::string image;
    int64 mountedAt = 0, releasedAt = -1, guardAt = -1;
    uint64 cursor = 0;

    std::vector<std::string> notes;
    SxString lastFailure;
    bool wasSilent = false; ///< in the last call
    VirtualClock& clock() { return time; }

private:
    /// Settles the state after each sleep, since a look at a file is no call.
    class Clock : public VirtualClock {
    public:
        explicit Clock(ScriptedDriver& owner) : driver(owner) {}
        void sleepNs(int64 ns) override {
            VirtualClock::sleepNs(ns);
            driver.settle();
        }

    private:
        ScriptedDriver& driver;
    };
    struct Fault {
        int left = 0;
        std::string reason;
    };

    static constexpr int64 ANSWER_MS = 20'000;

    std::string marker;
    int64 silentUntilMs = 0;
    std::map<std::string, Fault> faults;
    std::map<uint64, int64> poppedAt;
    Clock time;
};
