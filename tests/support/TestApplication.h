#pragma once

#include "ZqDesktop.h"

#include <string>
#include <xcb/xcb_ewmh.h>
#include <xcb/xcb_icccm.h>

/// An application's connection to the display. It never answers, as one that hangs.
class TestApplication {
public:
    TestApplication() : connection(::xcb_connect(nullptr, nullptr)) {
        ::xcb_ewmh_init_atoms_replies(&ewmh, ::xcb_ewmh_init_atoms(connection, &ewmh), nullptr);
        screen = ::xcb_setup_roots_iterator(::xcb_get_setup(connection)).data;
    }
    ~TestApplication() {
        ::xcb_ewmh_connection_wipe(&ewmh);
        ::xcb_disconnect(connection);
    }
    TestApplication(const TestApplication&) = delete;
    TestApplication& operator=(const TestApplication&) = delete;

    struct Look {
        std::string title, className;
        uint32_t pid = 0;
        std::string machine;
        bool oldTitle = false; ///< only in ISO 8859-1
    };
    ZqDesktop::Handle show(const Look& look) {
        const xcb_window_t window = ::xcb_generate_id(connection);
        ::xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, 10, 10, 200, 100, 0,
                            XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
        const auto length = static_cast<uint32_t>(look.title.size());
        if (look.oldTitle) {
            ::xcb_icccm_set_wm_name(connection, window, XCB_ATOM_STRING, 8, length, look.title.data());
        } else {
            ::xcb_ewmh_set_wm_name(&ewmh, window, length, look.title.data());
        }
        const std::string both = "instance" + std::string(1, '\0') + look.className + '\0';
        ::xcb_icccm_set_wm_class(connection, window, static_cast<uint32_t>(both.size()), both.data());
        if (look.pid != 0) ::xcb_ewmh_set_wm_pid(&ewmh, window, look.pid);
        ::xcb_icccm_set_wm_client_machine(connection, window, XCB_ATOM_STRING, 8,
                                          static_cast<uint32_t>(look.machine.size()), look.machine.data());
        ::xcb_map_window(connection, window);
        ::xcb_flush(connection);
        return window;
    }
    void destroy(ZqDesktop::Handle window) {
        ::xcb_destroy_window(connection, static_cast<xcb_window_t>(window));
        ::xcb_flush(connection);
    }
    void goToDesktop(uint32_t desktop) {
        ::xcb_ewmh_request_change_current_desktop(&ewmh, 0, desktop, XCB_CURRENT_TIME);
        ::xcb_flush(connection);
    }
    uint32_t getDesktop() {
        uint32_t desktop = 0;
        ::xcb_ewmh_get_current_desktop_reply(&ewmh, ::xcb_ewmh_get_current_desktop(&ewmh, 0), &desktop,
                                             nullptr);
        return desktop;
    }

private:
    xcb_connection_t* connection;
    xcb_ewmh_connection_t ewmh = {};
    xcb_screen_t* screen = nullptr;
};
