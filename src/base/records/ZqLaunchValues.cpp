#include "ZqLaunchValues.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxFileInfo.h"
#include "ZqAppParams.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqRecordFile.h"
#include "ZqStreamRecord.h"

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqLaunchValues";
constexpr auto OBJECT = SxParserAst::Object;

bool isLaunchKey(const SxString& key) {
    return key == "cmd" || key == "args" || key == "name" || key == "delay";
}

} // namespace

ZqLaunchValues ZqLaunchValues::of(const ZqAppParams& app) {
    return {app.cmd, app.args, app.name, app.delay};
}

void ZqLaunchValues::applyTo(ZqAppParams* app) const {
    app->cmd = cmd;
    app->args = args;
    app->name = name;
    app->delay = delay;
}

ZqLaunchValues ZqLaunchValues::originalOf(const SxString& image, const ZqAppParams& app) {
    ZqStreamRecord record;
    record.read(image);
    return record.launch && record.launch->written.contains(of(app)) ? record.launch->original : of(app);
}

void ZqLaunchValues::write(const SxString& image) const {
    const SxString file = ZqImageFolder::prefix(image) + ZqImageFiles::APP_JSON;
    try {
        const SxString text = SxFileIO::readUtf8(file);
        const SxSymbol former = ZqRecordFile::parse(text, file, "zqapp-schema.json");
        ZqAppParams app;
        app.readText(text, file);
        if (of(app) == *this) return;
        // First, so that the original values are never lost: until the file has the new values, it has those
        // that a launcher has written before.
        ZqStreamRecord::update(image, [&](ZqStreamRecord* record) {
            ZqStreamRecord::Launch launch{of(app), {*this}};
            if (record->launch && record->launch->written.contains(of(app))) {
                launch.original = record->launch->original;
                launch.written.append(of(app));
            }
            record->launch = launch;
        });
        SxSymbol root;
        root.setType(OBJECT);
        for (int64 i = 0; i < former.getSize(); ++i) {
            const SxSymbol element = former.at(i);
            if (!(element.getKey() == "app")) {
                root.appendCopy(element.getKey(), element);
                continue;
            }
            const SxSymbol values = root.append("app", OBJECT);
            put(values);
            for (int64 k = 0; k < element.getSize(); ++k) {
                const SxSymbol rest = element.at(k);
                if (!isLaunchKey(rest.getKey())) SxSymbol(values).appendCopy(rest.getKey(), rest);
            }
        }
        ZqRecordFile::write(root, file, SxFileIO::KEEP);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + SxFileInfo(file).getAbsPath(), UNIT, __LINE__);
    }
}

void ZqLaunchValues::read(const SxSymbol& object) {
    cmd = object.getElem("cmd").toString();
    ZqRecordFile::get(object, "args", &args);
    ZqRecordFile::get(object, "name", &name);
    ZqRecordFile::get(object, "delay", &delay);
}

void ZqLaunchValues::put(SxSymbol object) const {
    object.append("cmd", cmd);
    if (!args.isEmpty()) {
        SxSymbol list = object.append("args", SxParserAst::Array);
        for (const SxString& argument : args)
            list.append(argument);
    }
    if (!name.isEmpty()) object.append("name", name);
    object.append("delay", delay);
}
