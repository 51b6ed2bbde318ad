#pragma once

#include "SxArray.h"
#include "SxList.h"
#include "SxMap.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "SxString.h"

#include <atomic>
#include <concepts>
#include <deque>
#include <map>
#include <string_view>

/// The id of the event `name`: the 32-bit Jenkins one-at-a-time hash of its bytes.
constexpr uint32 sxEventId(std::string_view name) {
    uint32 hash = 0;
    for (const char c : name) {
        hash += static_cast<unsigned char>(c);
        hash += hash << 10;
        hash ^= hash >> 6;
    }
    hash += hash << 3;
    hash ^= hash >> 11;
    hash += hash << 15;
    return hash;
}

/// A job failed; texts: the path that it worked on, and the failure's chain.
inline constexpr uint32 SX_APP_ERROR = sxEventId("APP_ERROR");
static_assert(SX_APP_ERROR == 2239328683U);

/// The payload of one event. A value type. Not locked.
class SxEventData {
public:
    enum Type : unsigned char { Text = 2 };

    SxEventData() = default;
    /// The two texts; each ends at its first NUL, if it holds one.
    SxEventData(const SxString& first, const SxString& second);

    uint32 getId() const noexcept { return id; }
    void setId(uint32 id_) noexcept { id = id_; }
    int64 getNArgs() const noexcept { return types.getSize(); }
    /// The type of argument `argIdx`, from 0.
    unsigned char getType(int64 argIdx) const { return types(argIdx); }
    /// Argument `argIdx`, from 0; raises where there is none.
    SxString getText(int64 argIdx) const;
    /// The arguments one after the other, each text with its terminating zero.
    const SxArray<char>& getBuffer() const noexcept { return buffer; }

private:
    void append(const SxString& text);

    uint32 id = 0;
    SxArray<unsigned char> types;
    SxArray<char> buffer;
};

/// One event as a listener gets it. Copies share the payload, which no longer changes.
class SxEvent {
public:
    SxEvent() = default;
    explicit SxEvent(SxConstPtr<SxEventData> data_) : data(std::move(data_)) {}

    /// The payload; only of an event that came from a listener.
    const SxEventData& getData() const noexcept { return *data; }

private:
    SxConstPtr<SxEventData> data;
};

/// A queue of events that a client owns and reads. All operations are safe from any thread. The destructor
/// takes the listener off the bus; its owner sees to it that no other thread uses it then.
class SxEventListener {
public:
    SxEventListener();
    ~SxEventListener();
    SxEventListener(const SxEventListener&) = delete;
    SxEventListener& operator=(const SxEventListener&) = delete;

    /// Puts an event with that id at the end of the queue.
    template<uint32 id>
    void set(const SxEvent& event) {
        push(id, event);
    }
    /// Takes the oldest event off the queue; gives false where there is none.
    bool tryPop(SxEvent* event);
    /// Number of events with that id in the queue.
    int64 getWaitSize(uint32 id) const;
    /// Number of all events in the queue.
    int64 getWaitSize() const noexcept { return nWaiting.load(std::memory_order_acquire); }

private:
    void push(uint32 id, const SxEvent& event);

    mutable SxMutex mutex;
    std::deque<std::pair<uint32, SxEvent>> queue SX_GUARDED_BY(mutex);
    std::map<uint32, int64> nWaitingById SX_GUARDED_BY(mutex);
    std::atomic<int64> nWaiting{0};
};

/// Hands events from the jobs to the listeners that the client subscribes. An event that nobody listens to is
/// kept as one line of text. One object for the process; all operations are safe from any thread.
class SxEventBus {
public:
    static SxEventBus& getGlobalObj();

    /// Gives each listener of the event an event of its own, built from the two texts. `location` is where it
    /// was raised, see location(); `name` is the event's name, of which `id` is the hash.
    template<uint32 id, std::same_as<SxString> First, std::same_as<SxString> Second>
    static void pub(const First& first, const Second& second, const SxString& location, const SxString& name);

    /// From now on the listener gets events with that id; once, however often it is subscribed.
    void subscribe(uint32 id, SxEventListener* listener) SX_EXCLUDES(mutex);
    /// When it returns, the listener gets no further event with that id.
    void unsubscribe(uint32 id, SxEventListener* listener) SX_EXCLUDES(mutex);
    /// The same for all ids.
    void unsubscribe(SxEventListener* listener) SX_EXCLUDES(mutex);
    /// The events that found no listener, each as "0x<id>|name@location" with blanks around the bar; each
    /// once.
    SxList<SxString> getUnheard() const SX_EXCLUDES(mutex);

    /// "file:line:function", with the part of `path` after its last backslash.
    static SxString location(const SxString& path, int line, const SxString& function);

private:
    SxEventBus() = default;

    mutable SxMutex mutex;
    SxMap<uint32, SxArray<SxEventListener*>> listeners SX_GUARDED_BY(mutex);
    SxUniqueList<SxString> unheard SX_GUARDED_BY(mutex);
};

template<uint32 id, std::same_as<SxString> First, std::same_as<SxString> Second>
void SxEventBus::pub(const First& first, const Second& second, const SxString& location,
                     const SxString& name) {
    SxEventBus& bus = getGlobalObj();
    SxMutexBlock lock(&bus.mutex);
    int64 nHeard = 0;
    for (SxEventListener* listener : bus.listeners(id)) {
        if (!listener) continue;
        SxPtr<SxEventData> data = SxPtr<SxEventData>::create(first, second);
        data->setId(id);
        listener->set<id>(SxEvent(data));
        ++nHeard;
    }
    if (nHeard == 0) bus.unheard << SxString::sprintf("0x%x | ", id) + name + "@" + location;
}
