#pragma once

#include "SxString.h"

#include <memory>

/// One notification of the player's desktop (`org.freedesktop.Notifications` on the session bus), whose text
/// changes: a newer one takes the place of the former. Where there is no session bus, or nobody on it shows
/// notifications, or they don't answer, nothing is shown and nothing is different. None of the operations
/// raises, and only finish() waits. Belongs to one thread.
class ZqNotifier {
public:
    /// `title` is shown above each text.
    explicit ZqNotifier(const SxString& title);
    ~ZqNotifier();
    ZqNotifier(const ZqNotifier&) = delete;
    ZqNotifier& operator=(const ZqNotifier&) = delete;

    /// Asks for the notification to be shown with this text, which is plain.
    void show(const SxString& text);
    /// Asks for it to be taken away.
    void close();
    /// Takes in what the bus has to say. To be called now and then as long as isBusy().
    void process();
    /// Whether an answer is still to come. What is shown now may come beside the former text, and not in its
    /// place.
    bool isBusy() const;
    /// Waits until all that was asked for is on its way and answered, `ms` milliseconds at most.
    void finish(int64 ms);

private:
    class Bus;
    bool open();
    void check(int error);

    const SxString title;
    std::unique_ptr<Bus> bus;
    uint32 id = 0;     ///< of the notification; 0 for none
    bool told = false; ///< the log has why there are none
};
