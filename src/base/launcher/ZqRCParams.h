#pragma once

#include "SxSymbol.h"

/// The record of the Robot Cache client's configuration file, `appConfig.json`: all that it knows by name
/// stands in fields, and what it doesn't know is kept and written back, since the file is the player's. The
/// name and password in it go through unchanged and are read for nothing else. Not locked.
class ZqRCParams {
public:
    struct LastLogin {
        SxString password;
        bool remember_password = false;
        SxString username;
    };
    struct MiningConfigs {
        bool cpuLiftOff = false, cpu_mining_state = false, first_time_mining = false, liftOff = false,
             gpu_mining_state = false;
    };
    struct Window {
        int64 close_behaviour = 0, hight = 0, width = 0;
    };

    int64 client_language = 0;
    bool client_run_at_startup = false;
    int64 formatVersion = 0;
    SxList<int64> gameOrders;
    SxString gameSortAlgorithm; ///< the only optional one; not written where it is empty
    bool hide_ticker = false;
    SxString hours_mined, iron_balance;
    LastLogin last_login;
    SxList<SxString> libraries; ///< folders of games
    SxString miner_id, miningRewardSetConfigurationId;
    MiningConfigs mining_configs;
    SxString mining_reward_fromdate, mining_reward_todate;
    int64 selected_server = 0;
    Window window;

    /// All defaults.
    ZqRCParams() = default;
    /// Reads at once.
    ZqRCParams(const SxString& name, const SxString& folder);

    /// Where the file is, for an empty name or folder the client's own.
    static SxString pathOf(const SxString& name, const SxString& folder);
    /// Fills the record; an empty `name` means "appConfig.json", an empty `folder` the client's. Raises "File
    /// ... not found.", "Required schema file ... not found", or "Failed to read file ..." with the cause.
    void read(const SxString& name, const SxString& folder);
    /// The same from a text; failures name it `textName`.
    void readText(const SxString& text, const SxString& textName);
    /// Replaces the file as a whole, with its permissions and its owner, and makes its folder. Raises "Failed
    /// to write file ..." with the cause.
    void write(const SxString& name, const SxString& folder) const;
    /// What write() writes.
    SxString toText() const;
    /// Logs the fields, but for the name and the password.
    void print() const;

private:
    SxParserKit::SxSymbol root; ///< the whole file
};
