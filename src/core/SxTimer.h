#pragma once

#include "SxMutex.h"
#include "SxString.h"

#include <concepts>
#include <initializer_list>
#include <type_traits>
#include <typeinfo>
#include <vector>

/// Numbered stop watches on the clock in force (SxClock); each adds up its runs. Ids count from 0. All
/// operations are safe from any thread. An id outside the timers raises SxException, but from stop().
class SxTimer {
public:
    /// `nTimers` timers, all running with `startAll`, else idle.
    SxTimer(int nTimers, bool startAll);

    /// The process-wide timer, built on first use with 64 idle timers.
    static SxTimer& getGlobalTimer();

    /// Starts a timer; one that runs goes on.
    void start(int id) { startIfIdle(id); }
    /// The same; gives whether this call started it.
    bool startIfIdle(int id) SX_EXCLUDES(mutex);
    /// Stops a timer; nothing where it is idle, or where there is none.
    void stop(int id) noexcept SX_EXCLUDES(mutex);
    bool isIdle(int id) const SX_EXCLUDES(mutex);
    /// Nanoseconds of all runs, up to now where it runs.
    int64 getElapsedNs(int id) const SX_EXCLUDES(mutex);
    /// The name it was registered with; empty for none.
    SxString getName(int id) const SX_EXCLUDES(mutex);

    /// Names the global timer of `value` of the enumeration `E`, and makes room for it.
    template<class E>
    requires std::is_enum_v<E>
    static void regTimer(E value, const SxString& name) {
        regTimer(typeid(E).name(), static_cast<int>(value), name);
    }
    /// The id of the global timer of `value`. The names of `E` must be registered (SxTimerNames).
    template<class E>
    requires std::is_enum_v<E>
    static int getTimerId(E value) {
        static const int startId = getStartId(typeid(E).name());
        return startId + static_cast<int>(value);
    }

private:
    struct Watch {
        SxString name;
        int64 totalNs = 0;
        int64 startNs = 0;
        bool running = false;
    };

    static void regTimer(const char* enumName, int value, const SxString& name);
    static int getStartId(const char* enumName);
    void setName(int id, const SxString& name) SX_EXCLUDES(mutex);
    void require(int id) const SX_REQUIRES(mutex);
    const Watch& watch(int id) const SX_REQUIRES(mutex);

    mutable SxMutex mutex;
    std::vector<Watch> watches SX_GUARDED_BY(mutex);
};

/// Registers the names of the enumeration `E`, those of the values 0, 1 and so on. Make one object, of static
/// storage duration, where `E` is declared.
template<class E>
class SxTimerNames {
public:
    SxTimerNames(std::initializer_list<const char*> names) {
        int value = 0;
        for (const char* name : names)
            SxTimer::regTimer(static_cast<E>(value++), name);
    }
};

/// Takes the time of a scope with a global timer. Where the timer runs already, in a scope around this one or
/// on another thread, the object does nothing, so only the outermost scope measures.
class SxTakeTime {
public:
    explicit SxTakeTime(int id_) : id(SxTimer::getGlobalTimer().startIfIdle(id_) ? id_ : -1) {}
    template<class E>
    requires std::is_enum_v<E>
    explicit SxTakeTime(E value) : SxTakeTime(SxTimer::getTimerId(value)) {}
    ~SxTakeTime() {
        if (id >= 0) SxTimer::getGlobalTimer().stop(id);
    }
    SxTakeTime(const SxTakeTime&) = delete;
    SxTakeTime& operator=(const SxTakeTime&) = delete;

private:
    int id;
};
