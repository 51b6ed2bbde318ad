#pragma once

class ZqAppParams;
struct ZqRunSettings;

/// What would keep an application from being started, found before anything of it is downloaded.
class ZqStartCheck {
public:
    /// Raises, with a sentence that says what to do, where the record names a launcher that hands the command
    /// to another process and no process to follow; where nothing can run a Windows program; and where the
    /// machine root belongs to another user, since Wine refuses it then.
    static void require(const ZqRunSettings& settings, const ZqAppParams& app);
};
