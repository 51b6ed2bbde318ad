#pragma once

#include "SxList.h"
#include "SxMutex.h"
#include "SxString.h"

#include <atomic>
#include <string>

/// What the application of a run says: its standard output and error, in the file `runs/TIME.log` of the
/// image, for its user alone. The first and the last PART bytes of it stay, and those of the last KEPT runs.
/// The application writes into the file itself and needs nobody to take it: so it lives on where its run is
/// killed, and the next run goes on with the file. Whatever is wrong with the file, the application starts:
/// what it says then goes nowhere, and the log says so. Nothing here raises. Of one thread, which may be
/// another one after begin() or adopt(), but for getFile() and readNext().
class ZqGameOutput {
public:
    static constexpr int64 PART = 2 << 20;
    static constexpr size_t KEPT = 3;
    /// The last bytes that trim() leaves to a reader who is slower than the application.
    static constexpr int64 MOST_UNREAD = 64 << 20;

    /// `isRead_`: somebody takes all of it, by readNext().
    ZqGameOutput(SxString image_, bool isRead_);
    ~ZqGameOutput();
    ZqGameOutput(const ZqGameOutput&) = delete;
    ZqGameOutput& operator=(const ZqGameOutput&) = delete;

    /// Makes the file of a run that began at `timeMs`, in milliseconds since 1970 UTC.
    void begin(int64 timeMs);
    /// Goes on with the file of a run that was killed, whose application lives.
    void adopt();
    /// The descriptor for the application to write to; it stays this object's. -1 before begin().
    int getFd() const { return appFd; }
    /// Empty where there is none. Safe from any thread after begin() or adopt().
    const SxString& getFile() const { return file; }
    /// Brings the logs of former runs, of which some may have been killed, into shape, and removes the
    /// oldest.
    void tidy() const;
    /// Gives the room of what has become too much back to the disk. To be called often while the application
    /// runs: it costs next to nothing as long as that says nothing.
    void trim();
    /// After the application's end: makes a plain text of the file.
    void end();
    /// The last lines, ten at most, each cut at 500 bytes, and made visible by whoever shows them. Before
    /// end().
    SxList<SxString> getLastLines() const;

    /// The next piece of what the application says; empty where all that it has said so far was given. What
    /// wasn't read soon enough is left out, with a line that says how much. Safe from any one thread beside.
    std::string readNext() SX_EXCLUDES(mutex);

private:
    /// Which bytes are gone, and where the reader is, counted in all that the application has said.
    struct State {
        int64 goneEnd = PART; ///< those from PART to here are gone
        int64 nCut = 0;       ///< what comes after them stands so many bytes earlier in the file
        int64 readEnd = 0;
        bool operator==(const State&) const = default;
    };
    State getState() const SX_EXCLUDES(mutex);
    void setState(const State& newState) SX_EXCLUDES(mutex);
    void setGone(int64 end, int64 nCut) SX_EXCLUDES(mutex);
    void make(int64 timeMs);
    void open();
    void cut(int64 nCut, int64 size);
    void close();

    const SxString image;
    const bool isRead;
    SxString file;
    std::atomic<int> fd{-1}; ///< the reader may look before begin() has set it
    int appFd = -1;
    int64 lastSize = 0;
    bool canPunch = true;
    std::string tail; ///< of a file that was cut: what came last before that
    mutable SxMutex mutex;
    State state SX_GUARDED_BY(mutex);
};
