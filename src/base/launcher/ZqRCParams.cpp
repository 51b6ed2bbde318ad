#include "ZqRCParams.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxFileInfo.h"
#include "ZqLauncherFiles.h"
#include "ZqLog.h"
#include "ZqRecordFile.h"
#include "ZqSysEnv.h"

#include <type_traits>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqRCParams";
constexpr const char* SCHEMA = "zqrc-schema.json";
constexpr const char* CONFIG = "/RobotCache/RobotCacheClient/config/";
constexpr const char* RULE =
    "--------------------------------------------------------------------------------";
constexpr auto ARRAY = SxParserAst::Array;
constexpr auto OBJECT = SxParserAst::Object;

/// Visits all keys of the file in their order: `field(object, key, field)` with the object's name, empty for
/// the root. `Params` is the record, const or not.
template<class Params, class Visit>
void visit(Params& record, Visit&& field) {
    field("", "client_language", record.client_language);
    field("", "client_run_at_startup", record.client_run_at_startup);
    field("", "formatVersion", record.formatVersion);
    field("", "gameOrders", record.gameOrders);
    field("", "gameSortAlgorithm", record.gameSortAlgorithm);
    field("", "hide_ticker", record.hide_ticker);
    field("", "hours_mined", record.hours_mined);
    field("", "iron_balance", record.iron_balance);
    field("last_login", "password", record.last_login.password);
    field("last_login", "remember_password", record.last_login.remember_password);
    field("last_login", "username", record.last_login.username);
    field("", "libraries", record.libraries);
    field("", "miner_id", record.miner_id);
    field("", "miningRewardSetConfigurationId", record.miningRewardSetConfigurationId);
    field("mining_configs", "cpuLiftOff", record.mining_configs.cpuLiftOff);
    field("mining_configs", "cpu_mining_state", record.mining_configs.cpu_mining_state);
    field("mining_configs", "first_time_mining", record.mining_configs.first_time_mining);
    field("mining_configs", "liftOff", record.mining_configs.liftOff);
    field("mining_configs", "gpu_mining_state", record.mining_configs.gpu_mining_state);
    field("", "mining_reward_fromdate", record.mining_reward_fromdate);
    field("", "mining_reward_todate", record.mining_reward_todate);
    field("", "selected_server", record.selected_server);
    field("window", "close_behaviour", record.window.close_behaviour);
    field("window", "hight", record.window.hight);
    field("window", "width", record.window.width);
}

bool isOptional(const SxString& key) {
    return key == "gameSortAlgorithm";
}

void get(const SxSymbol& symbol, SxString& field) {
    field = symbol.toString();
}
void get(const SxSymbol& symbol, int64& field) {
    field = symbol.toInt();
}
void get(const SxSymbol& symbol, bool& field) {
    field = symbol.toBool();
}
void get(const SxSymbol& symbol, SxList<int64>& field) {
    field = symbol.toIntList();
}
void get(const SxSymbol& symbol, SxList<SxString>& field) {
    field = symbol.toStringList();
}

template<class T>
void put(SxSymbol object, const char* key, const T& value) {
    object.append(key, value);
}
template<class T>
void put(SxSymbol object, const char* key, const SxList<T>& values) {
    SxSymbol list = object.append(key, ARRAY);
    for (const T& value : values)
        list.append(value);
}

SxString textOf(const SxString& value) {
    return value;
}
SxString textOf(int64 value) {
    return SxString(value);
}
SxString textOf(bool value) {
    return value ? "true" : "false";
}
template<class T>
SxString textOf(const SxList<T>& values) {
    SxList<SxString> texts;
    for (const T& value : values)
        texts.append(textOf(value));
    return SxString::join(texts, ", ");
}

/// Adds what an object of the file has beside the keys that are there already.
void appendRest(SxSymbol object, const SxSymbol& former) {
    if (!former.isValid() || former.getType() != OBJECT) return;
    for (int64 i = 0; i < former.getSize(); ++i) {
        const SxSymbol element = former.at(i);
        const SxString key = element.getKey();
        if (!object.hasElem(key) && !isOptional(key)) object.appendCopy(key, element);
    }
}

} // namespace

ZqRCParams::ZqRCParams(const SxString& name, const SxString& folder) {
    read(name, folder);
}

SxString ZqRCParams::pathOf(const SxString& name, const SxString& folder) {
    return (folder.isEmpty() ? ZqSysEnv::getSysPath(ZqSysEnv::CommonAppData) + CONFIG : folder) +
           (name.isEmpty() ? SxString("appConfig.json") : name);
}

void ZqRCParams::read(const SxString& name, const SxString& folder) {
    const SxString path = pathOf(name, folder);
    const SxString text = ZqLauncherFiles::readText(path);
    ZqRecordFile::requireSchema(SCHEMA);
    readText(text, path);
}

void ZqRCParams::readText(const SxString& text, const SxString& textName) {
    try {
        *this = ZqRCParams();
        root = ZqRecordFile::parseForeign(text, textName, SCHEMA);
        visit(*this, [&](const SxString& object, const char* key, auto& field) {
            const SxSymbol parent = object.isEmpty() ? root : root.getElem(object, true);
            const SxSymbol element = parent.getElem(key, !isOptional(key));
            if (element.isValid()) get(element, field);
        });
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + textName, UNIT, __LINE__);
    }
}

SxString ZqRCParams::toText() const {
    SxSymbol whole;
    whole.setType(OBJECT);
    visit(*this, [&](const SxString& object, const char* key, const auto& field) {
        if constexpr (std::is_same_v<std::decay_t<decltype(field)>, SxString>) {
            if (isOptional(key) && field.isEmpty()) return;
        }
        if (object.isEmpty()) {
            put(whole, key, field);
        } else {
            put(whole.hasElem(object) ? whole.getElem(object) : whole.append(object, OBJECT), key, field);
        }
    });
    if (root.isValid()) {
        for (const char* object : {"last_login", "mining_configs", "window"})
            appendRest(whole.getElem(object), root.getElem(object, false));
        appendRest(whole, root);
    }
    return whole.toJson(4) + "\n";
}

void ZqRCParams::write(const SxString& name, const SxString& folder) const {
    const SxString path = pathOf(name, folder);
    try {
        ZqLauncherFiles::requireNoLink(path);
        ZqRecordFile::writeText(toText(), path, SxFileIO::KEEP);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + SxFileInfo(path).getAbsPath(), UNIT, __LINE__);
    }
}

void ZqRCParams::print() const {
    zqLogMsg("base", RULE);
    zqLogMsg("base", "ZqRCParams Content");
    visit(*this, [](const SxString&, const char* key, const auto& field) {
        const bool isSecret = SxString(key) == "password" || SxString(key) == "username";
        zqLogMsg("base", SxString(key) + ": " + (isSecret ? SxString("(not shown)") : textOf(field)));
    });
    zqLogMsg("base", RULE);
}
