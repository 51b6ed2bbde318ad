#include "ZqSleepWatch.h"

#include "SxClock.h"
#include "SxOs.h"
#include "ZqLog.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char* NAME = "org.freedesktop.login1";
constexpr const char* PATH = "/org/freedesktop/login1";
constexpr const char* INTERFACE = "org.freedesktop.login1.Manager";
constexpr uint64 LIMIT_US = 2'000'000; ///< of a call
constexpr int64 AGAIN_NS = 10'000'000'000;

} // namespace

/// A connection to the system bus. Numbers of errors are those of sd-bus: 0 or more for success, else the
/// system's, negative.
class ZqSleepWatch::Bus {
public:
    ~Bus() {
        drop();
        sd_bus_close_unref(bus);
    }

    int open() {
        int error = sd_bus_open_system(&bus);
        if (error >= 0) error = sd_bus_set_method_call_timeout(bus, LIMIT_US);
        if (error >= 0) {
            error =
                sd_bus_match_signal(bus, nullptr, NAME, PATH, INTERFACE, "PrepareForSleep", onSleep, this);
        }
        // A logind that was started anew knows nothing of what the last one was asked for.
        if (error >= 0) {
            error = sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "NameOwnerChanged", onOwner, this);
        }
        return error;
    }

    /// Until there is nothing more that came.
    int process() {
        int error = 0;
        do
            error = sd_bus_process(bus, nullptr);
        while (error > 0);
        return error;
    }

    int hold() {
        sd_bus_message *request = nullptr, *answer = nullptr;
        int error = sd_bus_message_new_method_call(bus, &request, NAME, PATH, INTERFACE, "Inhibit");
        // A machine whose logind doesn't run has its reason.
        if (error >= 0) error = sd_bus_message_set_auto_start(request, 0);
        if (error >= 0) {
            error = sd_bus_message_append(request, "ssss", "sleep", "TAVRIN",
                                          "What an application waits for is still fetched", "delay");
        }
        if (error >= 0) error = sd_bus_call(bus, request, 0, nullptr, &answer);
        int own = -1;
        if (error >= 0) error = sd_bus_message_read(answer, "h", &own); // it stays the message's
        if (error >= 0) {
            drop();
            lock = ::fcntl(own, F_DUPFD_CLOEXEC, 0);
            if (lock < 0) error = -errno;
        }
        sd_bus_message_unref(request);
        sd_bus_message_unref(answer);
        return error;
    }

    void drop() {
        if (lock >= 0) ::close(lock);
        lock = -1;
    }

    bool isHolding() const { return lock >= 0; }
    bool isSleepComing() const { return coming; }
    /// Whether logind is another one, or has gone, since the last call.
    bool takeOwnerChange() { return std::exchange(ownerChanged, false); }

private:
    static int onSleep(sd_bus_message* message, void* self, sd_bus_error*) {
        int coming = 0;
        if (sd_bus_message_read(message, "b", &coming) >= 0) static_cast<Bus*>(self)->coming = coming != 0;
        return 0;
    }

    static int onOwner(sd_bus_message* message, void* self, sd_bus_error*) {
        const char* name = "";
        if (sd_bus_message_read(message, "s", &name) < 0 || std::string_view(name) != NAME) return 0;
        Bus* const bus = static_cast<Bus*>(self);
        bus->drop();
        bus->coming = false;
        bus->ownerChanged = true;
        return 0;
    }

    sd_bus* bus = nullptr;
    int lock = -1; ///< as long as it is open the machine's sleep waits
    bool coming = false, ownerChanged = false;
};

ZqSleepWatch::ZqSleepWatch() = default;
ZqSleepWatch::~ZqSleepWatch() = default;

bool ZqSleepWatch::isSleepComing() {
    const int64 nowNs = SxClock::get().steadyNs();
    const auto isRight = [&](int error, const char* what) {
        if (error >= 0) return true;
        if (!std::exchange(told, true)) {
            zqLogMsg("platform", SxString("ZqSleepWatch: ") + what + ": " + SxOs::errorText(-error));
        }
        nextNs = nowNs + AGAIN_NS;
        return false;
    };
    if (!bus) {
        if (nowNs < nextNs) return false;
        bus = std::make_unique<Bus>();
        if (!isRight(bus->open(), "no system bus")) {
            bus.reset();
            return false;
        }
        nextNs = 0;
    }
    if (!isRight(bus->process(), "the system bus is lost")) {
        bus.reset();
        return false;
    }
    if (bus->takeOwnerChange()) nextNs = 0;
    // Once it is about to sleep it is too late to ask for it.
    if (!bus->isSleepComing() && !bus->isHolding() && nowNs >= nextNs &&
        isRight(bus->hold(), "the machine's sleep can't be held up")) {
        told = false;
    }
    return bus->isSleepComing();
}

bool ZqSleepWatch::isHolding() const {
    return bus && bus->isHolding();
}

void ZqSleepWatch::release() {
    if (bus) bus->drop();
}
