#include "ZqFileSync.h"

#include "SxClock.h"
#include "SxFileIO.h"
#include "ZqLog.h"

/// One sync.
class ZqFileSync::Job : public SxSystemThread {
public:
    explicit Job(const SxString& file_) : file(file_), synced(file_) { setThreadName("image sync"); }
    ~Job() override { wait(); }

    /// Not while it runs.
    void setSize(uint64 bytes) { size = bytes; }
    void main() override {
        try {
            // The system tells only once that it has lost bytes. Later syncs say nothing of them.
            if (isBroken || synced.hasLoss()) return;
            SxFileIO(file, "rb").sync();
        } catch (const SxException& e) {
            isBroken = true;
            tell(e);
        }
        try {
            if (isBroken) {
                synced.noteLoss();
            } else {
                synced.note(size);
            }
        } catch (const SxException& e) {
            // The older note stands, and the next one may find room.
            tell(e);
        }
    }

private:
    static void tell(const SxException& e) {
        zqLogMsg("base", "ZqFileSync: " + e.toString(SxException::ShowMessage, ": "));
    }

    const SxString file;
    const ZqSyncedSize synced;
    uint64 size = 0;
    bool isBroken = false;
};

ZqFileSync::ZqFileSync(const SxString& file) : synced(file), job(std::make_unique<Job>(file)) {
}

ZqFileSync::~ZqFileSync() = default;

void ZqFileSync::begin(uint64 size) {
    synced.begin(size);
    hasBegun = true;
    askedSize = size;
    askedNs = SxClock::get().steadyNs();
}

void ZqFileSync::look(uint64 size) {
    if (!hasBegun) return;
    const int64 nowNs = SxClock::get().steadyNs();
    if (size == askedSize) {
        askedNs = nowNs;
        return;
    }
    if ((size - askedSize < MAX_BYTES && nowNs - askedNs < MAX_NS) || job->isRunning()) return;
    job->wait();
    job->setSize(size);
    askedSize = size;
    askedNs = nowNs;
    job->start();
}

void ZqFileSync::finish(uint64 size) {
    job->wait();
    if (!hasBegun || size == askedSize) return;
    askedSize = size;
    job->setSize(size);
    job->main();
}
