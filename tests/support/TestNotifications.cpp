#include "TestNotifications.h"

#include <algorithm>
#include <cerrno>
#include <systemd/sd-bus.h>

namespace {

constexpr const char* NAME = "org.freedesktop.Notifications";
constexpr const char* PATH = "/org/freedesktop/Notifications";
constexpr uint64_t TURN_US = 5000;

} // namespace

/// What the bus calls.
struct TestNotifications::Calls {
    static int onNotify(sd_bus_message* message, void* self, sd_bus_error*) {
        auto* const desktop = static_cast<TestNotifications*>(self);
        const char *program = "", *icon = "", *title = "", *text = "";
        uint32_t replaced = 0;
        const int error = sd_bus_message_read(message, "susss", &program, &replaced, &icon, &title, &text);
        if (error < 0) return error;
        uint32_t id = replaced;
        {
            const std::lock_guard lock(desktop->mutex);
            desktop->shown.push_back({replaced, title, text});
            if (id == 0) {
                id = static_cast<uint32_t>(
                    std::count_if(desktop->shown.begin(), desktop->shown.end(),
                                  [](const Shown& each) { return each.replaced == 0; }));
            }
        }
        desktop->closed = false;
        return sd_bus_reply_method_return(message, "u", id);
    }

    static int onClose(sd_bus_message* message, void* self, sd_bus_error*) {
        static_cast<TestNotifications*>(self)->closed = true;
        return sd_bus_reply_method_return(message, "");
    }
};

TestNotifications::TestNotifications(const TestBus& where) {
    TestBus::require(sd_bus_new(&bus), "a bus");
    TestBus::require(sd_bus_set_address(bus, where.getAddress().c_str()), "its address");
    TestBus::require(sd_bus_set_bus_client(bus, 1), "a client of it");
    TestBus::require(sd_bus_start(bus), "the bus");
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", Calls::onNotify, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("CloseNotification", "u", "", Calls::onClose, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    TestBus::require(sd_bus_add_object_vtable(bus, nullptr, PATH, NAME, table, this), "its object");
    TestBus::require(sd_bus_request_name(bus, NAME, 0), "its name");
    thread = std::thread([this] { serve(); });
}

TestNotifications::~TestNotifications() {
    stopping = true;
    thread.join();
    sd_bus_flush_close_unref(bus);
}

std::vector<TestNotifications::Shown> TestNotifications::getShown() const {
    const std::lock_guard lock(mutex);
    return shown;
}

void TestNotifications::serve() {
    while (!stopping) {
        while (sd_bus_process(bus, nullptr) > 0)
            continue;
        sd_bus_wait(bus, TURN_US);
    }
}
