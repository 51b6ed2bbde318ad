#include "App.h"
#include "Verbs.h"

#include <tavrin/SxSymbol.h>
#include <tavrin/ZqLaunchers.h>
#include <tavrin/ZqReadable.h>

namespace {

using SxParserKit::SxSymbol;
namespace Json = SxParserAst;
using Change = ZqLaunchers::Change;

void append(SxSymbol object, const char* key, const SxList<SxString>& texts) {
    SxSymbol list = object.append(key, Json::Array);
    for (const SxString& text : texts)
        list.append(text.validUtf8());
}

SxSymbol toJson(const SxList<ZqLaunchers::Launcher>& launchers, const SxList<Change>& changes) {
    SxSymbol root;
    root.setType(Json::Object);
    SxSymbol list = root.append("launchers", Json::Array);
    for (const ZqLaunchers::Launcher& launcher : launchers) {
        SxSymbol object = list.append(Json::Object);
        object.append("launcher", launcher.word);
        object.append("installed", launcher.isInstalled);
        object.append("program", launcher.program.validUtf8());
        if (!launcher.fault.isEmpty()) object.append("fault", launcher.fault.validUtf8());
    }
    list = root.append("changes", Json::Array);
    for (const Change& change : changes) {
        SxSymbol object = list.append(Json::Object);
        object.append("image", change.image.validUtf8());
        object.append("mounted", change.isMounted);
        append(object, "setAside", change.setAside);
        append(object, "made", change.made);
        append(object, "libraries", change.libraries);
        SxSymbol registry = object.append("registry", Json::Array);
        for (const Change::Value& value : change.registry) {
            SxSymbol entry = registry.append(Json::Object);
            entry.append("key", value.key);
            entry.append("value", value.name);
            entry.append("wasThere", value.wasThere);
        }
    }
    return root;
}

void tell(const Change& change, Output* out) {
    const SxString image = change.image.isEmpty() ? SxString("No image") : change.image.makeVisible();
    out->text(image + (change.isMounted ? ", mounted:" : ", no longer mounted:"));
    const auto line = [&](const char* what, const SxString& name) {
        out->text(SxString::sprintf("  %-11s", what) + name.makeVisible());
    };
    for (const SxString& folder : change.setAside)
        line("set aside", folder);
    for (const SxString& path : change.made)
        line("made", path);
    for (const SxString& library : change.libraries)
        line("added", library);
    for (const Change::Value& value : change.registry)
        line(value.wasThere ? "replaced" : "added", value.key + " \"" + value.name + "\"");
}

int list(Output& out) {
    const SxList<ZqLaunchers::Launcher> launchers = ZqLaunchers::getLaunchers();
    const SxList<Change> changes = ZqLaunchers::getChanges();
    if (out.getMode().json) out.object(toJson(launchers, changes));
    for (const ZqLaunchers::Launcher& launcher : launchers) {
        out.text(SxString::sprintf("%-12s", launcher.word.ascii()) +
                 (!launcher.fault.isEmpty() ? launcher.fault.makeVisible()
                  : launcher.isInstalled    ? launcher.program.makeVisible()
                                            : SxString("not installed")));
    }
    if (changes.isEmpty()) out.text("Nothing is set aside or added at the moment");
    bool hasLeft = false;
    for (const Change& change : changes) {
        tell(change, &out);
        hasLeft = hasLeft || !change.isMounted;
    }
    if (hasLeft)
        out.finding("What is left of images that are no longer mounted goes by: tavrin launcher restore");
    return ExitSuccess;
}

int restore(Output& out) {
    const ZqLaunchers::Restored restored = ZqLaunchers::restore();
    if (out.getMode().json) {
        SxSymbol root;
        root.setType(Json::Object);
        append(root, "restored", restored.images);
        append(root, "mounted", restored.mounted);
        root.append("broughtBack", restored.broughtBack);
        root.append("failed", restored.failures.getSize());
        out.object(root);
    }
    for (const SxString& image : restored.images)
        out.text("Took back what the mount of '" + image.makeVisible() + "' had changed");
    for (const SxException& failure : restored.failures) {
        if (&failure == &restored.failures.last()) throw SxException(failure);
        Output::failure(failure.toString(SxException::ShowMessage, ": "));
    }
    for (const SxString& image : restored.mounted)
        out.text("What the mount of '" + image.makeVisible() +
                 "' has changed stays as long as that is mounted");
    if (restored.broughtBack) out.text("Brought the Epic manifests back that were set aside");
    if (restored.images.isEmpty() && !restored.broughtBack) out.text("Nothing was left over");
    return ExitSuccess;
}

} // namespace

void registerLauncherVerbs(App* app) {
    Family family = app->family("launcher", "What mounts change for the launchers of this machine");
    family
        .verb("list", "Show the launchers, and what is set aside or added for mounted titles",
              "tavrin launcher list --json")
        .action([](Output& out) { return list(out); });
    family
        .verb("restore", "Take back what a mount has changed that ended without its unmount",
              "tavrin launcher restore")
        .action([](Output& out) { return restore(out); });
}
