#include "ZqX11Screen.h"

#include <cstdlib>
#include <memory>
#include <xcb/randr.h>
#include <xcb/xcb.h>

namespace {

/// What the library gives away comes from malloc().
struct Free {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    void operator()(void* memory) const { std::free(memory); }
};
template<class T>
using Reply = std::unique_ptr<T, Free>;

struct Disconnect {
    void operator()(xcb_connection_t* connection) const { ::xcb_disconnect(connection); }
};
using Connection = std::unique_ptr<xcb_connection_t, Disconnect>;

/// Nothing where the output shows nothing.
ZqDesktop::Size sizeOf(xcb_connection_t* x, xcb_randr_output_t output, xcb_timestamp_t time) {
    const Reply<xcb_randr_get_output_info_reply_t> shown(
        ::xcb_randr_get_output_info_reply(x, ::xcb_randr_get_output_info(x, output, time), nullptr));
    if (!shown || shown->crtc == XCB_NONE) return {};
    const Reply<xcb_randr_get_crtc_info_reply_t> part(
        ::xcb_randr_get_crtc_info_reply(x, ::xcb_randr_get_crtc_info(x, shown->crtc, time), nullptr));
    return part ? ZqDesktop::Size{part->width, part->height} : ZqDesktop::Size{};
}

ZqDesktop::Size primarySize(xcb_connection_t* x, xcb_window_t root) {
    const xcb_query_extension_reply_t* extension = ::xcb_get_extension_data(x, &xcb_randr_id);
    if (!extension || !extension->present) return {};
    const Reply<xcb_randr_query_version_reply_t> version(
        ::xcb_randr_query_version_reply(x, ::xcb_randr_query_version(x, 1, 3), nullptr));
    if (!version || (version->major_version == 1 && version->minor_version < 3)) return {};
    const auto askPrimary = ::xcb_randr_get_output_primary(x, root);
    const auto askAll = ::xcb_randr_get_screen_resources_current(x, root);
    const Reply<xcb_randr_get_output_primary_reply_t> primary(
        ::xcb_randr_get_output_primary_reply(x, askPrimary, nullptr));
    const Reply<xcb_randr_get_screen_resources_current_reply_t> all(
        ::xcb_randr_get_screen_resources_current_reply(x, askAll, nullptr));
    if (!all) return {};
    ZqDesktop::Size size;
    if (primary && primary->output != XCB_NONE) size = sizeOf(x, primary->output, all->config_timestamp);
    const xcb_randr_output_t* outputs = ::xcb_randr_get_screen_resources_current_outputs(all.get());
    const int n = ::xcb_randr_get_screen_resources_current_outputs_length(all.get());
    for (int i = 0; i < n && size.width == 0; ++i)
        size = sizeOf(x, outputs[i], all->config_timestamp);
    return size;
}

} // namespace

ZqDesktop::Size ZqX11Screen::read() {
    int screenIdx = 0;
    const Connection x(::xcb_connect(nullptr, &screenIdx));
    if (::xcb_connection_has_error(x.get()) != 0) return {};
    xcb_screen_iterator_t screen = ::xcb_setup_roots_iterator(::xcb_get_setup(x.get()));
    for (int i = 0; i < screenIdx && screen.rem > 1; ++i)
        ::xcb_screen_next(&screen);
    if (screen.rem == 0) return {};
    const ZqDesktop::Size primary = primarySize(x.get(), screen.data->root);
    if (primary.width > 0) return primary;
    return {screen.data->width_in_pixels, screen.data->height_in_pixels};
}
