#include "ZqX11Desktop.h"

#include "SxClock.h"
#include "ZqX11Screen.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <unistd.h>
#include <vector>
#include <xcb/xcb_ewmh.h>
#include <xcb/xcb_icccm.h>

namespace {

constexpr int64 RETRY_NS = 1'000'000'000;
/// Most 4-byte units of a property that are read.
constexpr uint32 MAX_UNITS = 4096;

/// Who asks, in messages to the window manager: an application's own wish may be refused.
constexpr uint32 FROM_THE_USER = 2;
/// A time in messages to the window manager.
constexpr uint32 NOW = XCB_CURRENT_TIME;

/// What the library gives away comes from malloc().
struct Free {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    void operator()(void* memory) const { std::free(memory); }
};
template<class T>
using Reply = std::unique_ptr<T, Free>;

/// ISO 8859-1 as UTF-8.
std::string fromLatin1(std::string_view text) {
    std::string result;
    for (const char c : text) {
        const auto code = static_cast<unsigned char>(c);
        if (code >= 0x80) result.push_back(static_cast<char>(0xC0 | code >> 6));
        result.push_back(static_cast<char>(code >= 0x80 ? 0x80 | (code & 0x3F) : code));
    }
    return result;
}

/// The first `n` characters of a UTF-8 text.
std::string firstCharacters(const std::string& text, int64 n) {
    size_t end = 0;
    for (; end < text.size(); ++end) {
        const bool begins = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
        if (begins && n-- == 0) break;
    }
    return text.substr(0, end);
}

std::string hostName() {
    std::array<char, 256> name = {};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

} // namespace

/// One connection. Questions about windows are sent for all of them before the first answer is taken, so a
/// search costs two or three round trips, however many windows there are. A window that is gone answers with
/// an error, which counts as an empty property.
class ZqX11Desktop::Display {
public:
    /// Null where there is no display.
    static std::shared_ptr<Display> open() {
        auto made = std::make_shared<Display>();
        return made->begin() ? made : nullptr;
    }
    Display() : connection(::xcb_connect(nullptr, &screenIdx)) {}
    ~Display() {
        if (ready) ::xcb_ewmh_connection_wipe(&ewmh);
        ::xcb_disconnect(connection);
    }
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    bool isLost() const { return ::xcb_connection_has_error(connection) != 0; }
    /// Forgets what the server says unasked, and errors of requests without an answer.
    void drain() const {
        while (Reply<xcb_generic_event_t>(::xcb_poll_for_event(connection)))
            continue;
    }

    struct Property {
        xcb_atom_t type = XCB_ATOM_NONE;
        std::string bytes;

        uint32 number(size_t i = 0) const {
            uint32 value = 0;
            if ((i + 1) * sizeof value <= bytes.size())
                std::memcpy(&value, &bytes[i * sizeof value], sizeof value);
            return value;
        }
        std::vector<xcb_window_t> numbers() const {
            std::vector<xcb_window_t> all(bytes.size() / sizeof(xcb_window_t));
            if (!all.empty()) std::memcpy(all.data(), bytes.data(), all.size() * sizeof(xcb_window_t));
            return all;
        }
        bool has(uint32 value) const {
            const auto all = numbers();
            return std::find(all.begin(), all.end(), value) != all.end();
        }
    };

    /// A property of each of the windows, in their order.
    std::vector<Property> ask(const std::vector<xcb_window_t>& windows, xcb_atom_t name) const {
        std::vector<xcb_get_property_cookie_t> cookies;
        cookies.reserve(windows.size());
        for (const xcb_window_t window : windows)
            cookies.push_back(::xcb_get_property(connection, 0, window, name, XCB_ATOM_ANY, 0, MAX_UNITS));
        std::vector<Property> result;
        result.reserve(windows.size());
        for (const auto& cookie : cookies)
            result.push_back(take(cookie));
        return result;
    }
    Property ask(xcb_window_t window, xcb_atom_t name) const {
        return ask(std::vector<xcb_window_t>{window}, name).front();
    }

    /// All windows, topmost first.
    std::vector<xcb_window_t> getWindows() const {
        auto windows = ask(root, ewmh._NET_CLIENT_LIST_STACKING).numbers();
        if (windows.empty()) windows = ask(root, ewmh._NET_CLIENT_LIST).numbers();
        std::reverse(windows.begin(), windows.end());
        return windows;
    }

    struct Owner {
        xcb_window_t window;
        uint32 process;
    };
    /// Of the windows of programs on this machine, topmost first, as far as they name one.
    std::vector<Owner> getOwners() const {
        const auto windows = getWindows();
        const auto pids = ask(windows, ewmh._NET_WM_PID);
        const auto machines = ask(windows, XCB_ATOM_WM_CLIENT_MACHINE);
        const std::string here = hostName();
        std::vector<Owner> owners;
        for (size_t i = 0; i < windows.size(); ++i) {
            const std::string& machine = machines[i].bytes;
            const bool isLocal = machine.empty() || machine == here || machine == "localhost";
            if (isLocal && pids[i].number() > 0) owners.push_back({windows[i], pids[i].number()});
        }
        return owners;
    }

    std::vector<std::string> getTitles(const std::vector<xcb_window_t>& windows) const {
        const auto modern = ask(windows, ewmh._NET_WM_NAME), old = ask(windows, XCB_ATOM_WM_NAME);
        std::vector<std::string> titles;
        for (size_t i = 0; i < windows.size(); ++i) {
            const bool latin = modern[i].bytes.empty() && old[i].type == XCB_ATOM_STRING;
            const std::string& bytes = modern[i].bytes.empty() ? old[i].bytes : modern[i].bytes;
            titles.push_back(latin ? fromLatin1(bytes) : bytes);
        }
        return titles;
    }

    bool isIconic(xcb_window_t window) const {
        // Minimised is what the window manager calls hidden. ICCCM's iconic state, which several of them also
        // give to windows on other desktops, counts only where there is no such word.
        if (ask(root, ewmh._NET_SUPPORTED).has(ewmh._NET_WM_STATE_HIDDEN))
            return ask(window, ewmh._NET_WM_STATE).has(ewmh._NET_WM_STATE_HIDDEN);
        return ask(window, wmState).number() == XCB_ICCCM_WM_STATE_ICONIC;
    }

    /// Tells the window manager what is wanted of a window.
    void tell(xcb_window_t window, xcb_atom_t what, uint32 first, uint32 second = 0) const {
        xcb_client_message_event_t event = {};
        event.response_type = XCB_CLIENT_MESSAGE;
        event.format = 32;
        event.window = window;
        event.type = what;
        event.data.data32[0] = first;
        event.data.data32[1] = second;
        ::xcb_send_event(connection, 0, root,
                         XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                         reinterpret_cast<const char*>(&event));
        ::xcb_flush(connection);
    }
    void minimise(xcb_window_t window) const { tell(window, wmChangeState, XCB_ICCCM_WM_STATE_ICONIC); }
    void map(xcb_window_t window) const {
        ::xcb_map_window(connection, window);
        ::xcb_flush(connection);
    }

    xcb_ewmh_connection_t ewmh = {};
    xcb_window_t root = XCB_WINDOW_NONE;

private:
    bool begin() {
        if (isLost()) return false;
        // Wipes itself where it fails.
        if (::xcb_ewmh_init_atoms_replies(&ewmh, ::xcb_ewmh_init_atoms(connection, &ewmh), nullptr) == 0)
            return false;
        ready = true;
        wmState = intern("WM_STATE");
        wmChangeState = intern("WM_CHANGE_STATE");
        xcb_screen_iterator_t screen = ::xcb_setup_roots_iterator(::xcb_get_setup(connection));
        for (int i = 0; i < screenIdx && screen.rem > 1; ++i)
            ::xcb_screen_next(&screen);
        if (screen.rem > 0) root = screen.data->root;
        return root != XCB_WINDOW_NONE && !isLost();
    }

    xcb_atom_t intern(std::string_view name) const {
        const auto cookie = ::xcb_intern_atom(connection, 0, static_cast<uint16_t>(name.size()), name.data());
        const Reply<xcb_intern_atom_reply_t> reply(::xcb_intern_atom_reply(connection, cookie, nullptr));
        return reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
    }

    Property take(const xcb_get_property_cookie_t& cookie) const {
        xcb_generic_error_t* raised = nullptr;
        const Reply<xcb_get_property_reply_t> reply(::xcb_get_property_reply(connection, cookie, &raised));
        const Reply<xcb_generic_error_t> error(raised);
        if (!reply) return {};
        const auto* bytes = static_cast<const char*>(::xcb_get_property_value(reply.get()));
        const int n = ::xcb_get_property_value_length(reply.get());
        return {reply->type, std::string(bytes, static_cast<size_t>(n))};
    }

    int screenIdx = 0;
    xcb_connection_t* connection;
    bool ready = false;
    xcb_atom_t wmState = XCB_ATOM_NONE, wmChangeState = XCB_ATOM_NONE;
};

ZqDesktop& ZqDesktop::machine() noexcept {
    // A thread that looks at a slow display may outlive the program's end, so this is never destroyed.
    static ZqX11Desktop* const desktop = new ZqX11Desktop;
    return *desktop;
}

ZqX11Desktop::ZqX11Desktop() : triedNs(std::numeric_limits<int64>::min()) {
}

ZqX11Desktop::~ZqX11Desktop() = default;

std::shared_ptr<ZqX11Desktop::Display> ZqX11Desktop::getDisplay() {
    // The mutex is held while the connection is made, too: who comes meanwhile would find no window.
    const SxMutexBlock block(&mutex);
    if (display && display->isLost()) display.reset();
    if (!display) {
        const int64 nowNs = SxClock::get().steadyNs();
        if (triedNs > nowNs - RETRY_NS) return nullptr;
        triedNs = nowNs;
        display = Display::open();
    }
    if (display) display->drain();
    return display;
}

ZqDesktop::Size ZqX11Desktop::getScreenSize() {
    return ZqX11Screen::read();
}

ZqDesktop::Handle ZqX11Desktop::findByTitle(const SxString& title) {
    const auto x = getDisplay();
    if (!x || title.isEmpty()) return 0;
    const auto windows = x->getWindows();
    const auto titles = x->getTitles(windows);
    const auto found = std::find(titles.begin(), titles.end(), title.str());
    return found == titles.end() ? 0 : windows[static_cast<size_t>(found - titles.begin())];
}

ZqDesktop::Handle ZqX11Desktop::findByClass(const SxString& className) {
    const auto x = getDisplay();
    if (!x) return 0;
    const auto windows = x->getWindows();
    const auto classes = x->ask(windows, XCB_ATOM_WM_CLASS);
    for (size_t i = 0; i < windows.size(); ++i) {
        // Two texts, each ended by a NUL.
        const std::string& bytes = classes[i].bytes;
        const size_t begin = std::min(bytes.find('\0'), bytes.size() - 1) + 1;
        if (begin < bytes.size() && className.str() == &bytes[begin]) return windows[i];
    }
    return 0;
}

SxList<ZqDesktop::Handle> ZqX11Desktop::getWindowsOfProcess(int pid) {
    SxList<Handle> result;
    const auto x = getDisplay();
    if (!x || pid <= 0) return result;
    for (const auto& [window, owner] : x->getOwners()) {
        if (owner == static_cast<uint32>(pid)) result << Handle{window};
    }
    return result;
}

bool ZqX11Desktop::isNamed() {
    const char* name = std::getenv("DISPLAY");
    return name && *name;
}

SxList<int> ZqX11Desktop::getProcesses() {
    SxList<int> result;
    const auto x = getDisplay();
    if (!x) return result;
    for (const auto& [window, owner] : x->getOwners())
        result << static_cast<int>(owner);
    return result;
}

ZqDesktop::Handle ZqX11Desktop::getForeground() {
    const auto x = getDisplay();
    return x ? x->ask(x->root, x->ewmh._NET_ACTIVE_WINDOW).number() : 0;
}

bool ZqX11Desktop::isIconic(Handle window) {
    const auto x = getDisplay();
    return x && window != 0 && x->isIconic(static_cast<xcb_window_t>(window));
}

SxString ZqX11Desktop::getTitle(Handle window) {
    const auto x = getDisplay();
    if (!x || window == 0) return SxString();
    return firstCharacters(x->getTitles({static_cast<xcb_window_t>(window)}).front(), MAX_TITLE);
}

void ZqX11Desktop::forceMinimise(Handle window) {
    const auto x = getDisplay();
    if (x && window != 0) x->minimise(static_cast<xcb_window_t>(window));
}

void ZqX11Desktop::postMinimise(Handle window) {
    // A window's own button asks the window manager, too.
    forceMinimise(window);
}

void ZqX11Desktop::show(Handle window) {
    const auto x = getDisplay();
    if (x && window != 0) x->map(static_cast<xcb_window_t>(window));
}

void ZqX11Desktop::close(Handle window) {
    const auto x = getDisplay();
    if (x && window != 0)
        x->tell(static_cast<xcb_window_t>(window), x->ewmh._NET_CLOSE_WINDOW, NOW, FROM_THE_USER);
}

void ZqX11Desktop::activate(Handle window) {
    const auto x = getDisplay();
    if (x && window != 0)
        x->tell(static_cast<xcb_window_t>(window), x->ewmh._NET_ACTIVE_WINDOW, FROM_THE_USER);
}
