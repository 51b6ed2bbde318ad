#include "TestSleep.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* NAME = "org.freedesktop.login1";
constexpr const char* PATH = "/org/freedesktop/login1";
constexpr const char* INTERFACE = "org.freedesktop.login1.Manager";
constexpr int TURN_MS = 10;

} // namespace

/// Serves on a thread of its own until it is destroyed.
class TestSleep::Manager {
public:
    Manager(const std::string& address, std::atomic<int>* delays_) : delays(delays_) {
        TestBus::require(sd_bus_new(&bus), "a bus");
        TestBus::require(sd_bus_set_address(bus, address.c_str()), "its address");
        TestBus::require(sd_bus_set_bus_client(bus, 1), "a client of it");
        TestBus::require(sd_bus_negotiate_fds(bus, 1), "descriptors");
        TestBus::require(sd_bus_start(bus), "the bus");
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Inhibit", "ssss", "h", onInhibit, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_SIGNAL("PrepareForSleep", "b", 0),
            SD_BUS_VTABLE_END,
        };
        TestBus::require(sd_bus_add_object_vtable(bus, nullptr, PATH, INTERFACE, table, this), "its object");
        TestBus::require(sd_bus_request_name(bus, NAME, 0), "its name");
        thread = std::thread([this] { serve(); });
    }
    ~Manager() {
        stopping = true;
        thread.join();
        for (const int fd : locks)
            ::close(fd);
        *delays = 0;
        sd_bus_flush_close_unref(bus);
    }
    void tell(bool sleeps) { told = sleeps ? 1 : 0; }

private:
    static int onInhibit(sd_bus_message* message, void* self, sd_bus_error*) {
        const char *what = "", *who = "", *why = "", *mode = "";
        if (sd_bus_message_read(message, "ssss", &what, &who, &why, &mode) < 0) return -EINVAL;
        if (std::string(what) != "sleep" || std::string(mode) != "delay") return -EINVAL;
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC) != 0) return -errno;
        static_cast<Manager*>(self)->locks.push_back(ends[0]);
        ++*static_cast<Manager*>(self)->delays;
        const int answered = sd_bus_reply_method_return(message, "h", ends[1]); // sends a copy
        ::close(ends[1]);
        return answered;
    }

    void serve() {
        while (!stopping) {
            while (sd_bus_process(bus, nullptr) > 0)
                continue;
            if (const int sleeps = told.exchange(-1); sleeps >= 0) {
                sd_bus_emit_signal(bus, PATH, INTERFACE, "PrepareForSleep", "b", sleeps);
            }
            std::erase_if(locks, [this](int fd) {
                pollfd end = {fd, POLLIN, 0};
                if (::poll(&end, 1, 0) == 0) return false; // the other end is still open
                ::close(fd);
                --*delays;
                return true;
            });
            sd_bus_flush(bus);
            pollfd ready = {sd_bus_get_fd(bus), POLLIN, 0};
            ::poll(&ready, 1, TURN_MS);
        }
    }

    sd_bus* bus = nullptr;
    std::atomic<int>* const delays;
    std::atomic<bool> stopping{false};
    std::atomic<int> told{-1}; ///< what is to be told; -1 for nothing
    std::vector<int> locks;
    std::thread thread;
};

TestSleep::TestSleep() : bus("system") {
    startManager();
}

TestSleep::~TestSleep() {
    stopManager();
}

void TestSleep::startManager() {
    manager = std::make_unique<Manager>(bus.getAddress(), &delays);
}

void TestSleep::stopManager() {
    manager.reset();
}

void TestSleep::restart() {
    stopManager();
    startManager();
}

void TestSleep::tell(bool sleeps) {
    manager->tell(sleeps);
}
