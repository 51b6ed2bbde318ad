#include "ZqNotifier.h"

#include "SxClock.h"
#include "SxOs.h"
#include "ZqLog.h"

#include <algorithm>
#include <systemd/sd-bus.h>
#include <utility>

namespace {

constexpr const char* NAME = "org.freedesktop.Notifications";
constexpr const char* PATH = "/org/freedesktop/Notifications";
constexpr const char* APPLICATION = "TAVRIN";
constexpr uint64 LIMIT_US = 10'000'000; ///< of an answer
constexpr int64 NS_PER_US = 1000, NS_PER_MS = 1'000'000;
constexpr int USUAL_TIME = -1; ///< how long it is shown: as the desktop has it

/// A text as the desktop's markup has it.
SxString escaped(const SxString& text) {
    return text.substitute("&", "&amp;").substitute("<", "&lt;").substitute(">", "&gt;");
}

} // namespace

/// A connection to the session bus, of which no call waits but wait(). Numbers of errors are those of sd-bus:
/// 0 or more for success, else the system's, negative.
class ZqNotifier::Bus {
public:
    explicit Bus(uint32* id_) : id(id_) {}
    ~Bus() {
        sd_bus_slot_unref(slot);
        sd_bus_close_unref(bus);
    }

    int open() {
        const int error = sd_bus_open_user(&bus);
        return error < 0 ? error : sd_bus_set_method_call_timeout(bus, LIMIT_US);
    }

    int show(const SxString& heading, const SxString& body) {
        sd_bus_message* request = nullptr;
        int error = sd_bus_message_new_method_call(bus, &request, NAME, PATH, NAME, "Notify");
        if (error >= 0) {
            error = sd_bus_message_append(request, "susssasa{sv}i", APPLICATION, *id, "", heading.ascii(),
                                          body.ascii(), 0, 0, USUAL_TIME);
        }
        slot = sd_bus_slot_unref(slot); // an older answer no longer counts
        if (error >= 0) error = sd_bus_call_async(bus, &slot, request, onShown, this, LIMIT_US);
        sd_bus_message_unref(request);
        waits = error >= 0;
        return error;
    }

    int close() {
        return sd_bus_call_method_async(bus, nullptr, NAME, PATH, NAME, "CloseNotification", nullptr, nullptr,
                                        "u", *id);
    }

    /// Until there is nothing more to be done at once.
    int process() {
        int error = 0;
        do
            error = sd_bus_process(bus, nullptr);
        while (error > 0);
        return error;
    }

    int wait(uint64 us) { return sd_bus_wait(bus, us); }

    /// Whether the bus has taken all that it was asked.
    bool hasSent() const {
        uint64_t n = 0;
        return sd_bus_is_ready(bus) > 0 && sd_bus_get_n_queued_write(bus, &n) >= 0 && n == 0;
    }
    bool isWaiting() const { return waits; }
    /// What has kept the last text from being shown; 0 for nothing, or for what was asked for already.
    int takeError() { return std::exchange(refused, 0); }

private:
    static int onShown(sd_bus_message* answer, void* self, sd_bus_error*) {
        Bus* const bus = static_cast<Bus*>(self);
        bus->waits = false;
        uint32_t shown = 0;
        if (sd_bus_message_is_method_error(answer, nullptr) > 0) {
            bus->refused = -sd_bus_message_get_errno(answer);
        } else if (sd_bus_message_read(answer, "u", &shown) >= 0) {
            *bus->id = shown;
        }
        return 0;
    }

    uint32* const id;
    sd_bus* bus = nullptr;
    sd_bus_slot* slot = nullptr; ///< of the answer that is still to come
    bool waits = false;
    int refused = 0;
};

ZqNotifier::ZqNotifier(const SxString& title_) : title(title_.makeVisible()) {
}

ZqNotifier::~ZqNotifier() = default;

bool ZqNotifier::open() {
    if (bus) return true;
    bus = std::make_unique<Bus>(&id);
    check(bus->open());
    return bus != nullptr;
}

/// A connection that is lost is made again by the next text.
void ZqNotifier::check(int error) {
    if (error >= 0) return;
    if (!std::exchange(told, true)) {
        zqLogMsg("platform", "ZqNotifier: notifications can't be shown: " + SxOs::errorText(error));
    }
    bus.reset();
}

void ZqNotifier::show(const SxString& text) {
    if (!open()) return;
    check(bus->show(title, escaped(text.makeVisible())));
    process();
}

void ZqNotifier::close() {
    if (!bus || id == 0) return;
    check(bus->close());
    process();
    id = 0;
}

void ZqNotifier::process() {
    if (bus) check(bus->process());
    if (!bus) return;
    const int error = bus->takeError();
    if (error < 0 && !std::exchange(told, true)) {
        zqLogMsg("platform", "ZqNotifier: a notification was refused: " + SxOs::errorText(error));
    }
}

bool ZqNotifier::isBusy() const {
    return bus && bus->isWaiting();
}

void ZqNotifier::finish(int64 ms) {
    const int64 endNs = SxClock::get().steadyNs() + ms * NS_PER_MS;
    for (process(); bus && !(bus->hasSent() && !bus->isWaiting()); process()) {
        const int64 leftNs = endNs - SxClock::get().steadyNs();
        if (leftNs <= 0) break;
        check(bus->wait(static_cast<uint64>(leftNs / NS_PER_US)));
        if (!bus) break;
    }
}
