#include "App.h"
#include "Job.h"
#include "NetOptions.h"
#include "Verbs.h"

#include <tavrin/ZqMachineMeans.h>
#include <tavrin/ZqPublishMeans.h>
#include <tavrin/ZqServerMeans.h>

#include <algorithm>

namespace {

struct DoctorOptions {
    SxString url;
    NetOptions net;
};

const char* stateOf(const ZqMeans& means) {
    if (means.isThere) return "ok";
    return means.isNeeded ? "missing" : "optional missing";
}

void tell(const ZqMeans& means, Output* out) {
    if (out->getMode().json) {
        SxParserKit::SxSymbol object;
        object.setType(SxParserAst::Object);
        object.append("name", means.name);
        object.append("state", stateOf(means));
        object.append("needed", means.isNeeded);
        object.append("text", means.text.validUtf8());
        object.append("remedy", means.remedy.validUtf8());
        out->listing(object.toJson().str() + "\n");
        return;
    }
    SxString line =
        SxString::sprintf("%-17s %-12s ", stateOf(means), means.name.ascii()) + means.text.makeVisible();
    if (!means.remedy.isEmpty()) line += "; " + means.remedy.makeVisible();
    out->text(line + ".");
}

int examine(const DoctorOptions& options, Output& out) {
    const StopSignals signals;
    SxList<ZqMeans> all = ZqMachineMeans::look(".");
    all << ZqPublishMeans::look();
    if (!options.url.isEmpty()) {
        ZqServerMeans server(options.url, SxArray<SxString>(options.net.headers),
                             options.net.resolve(SxString()));
        all << server.look([&] { return signals.isAsked(); });
        // What is to come is known now.
        if (server.getSizeZqf() > 0) {
            for (ZqMeans& each : all) {
                if (each.name == "room") each = ZqMachineMeans::getRoom(".", server.getSizeZqf());
            }
        }
    }
    bool lacks = false;
    for (const ZqMeans& each : all) {
        tell(each, &out);
        lacks = lacks || (!each.isThere && each.isNeeded);
    }
    return lacks ? ExitFailure : ExitSuccess;
}

} // namespace

void registerDoctorVerb(App* app) {
    static DoctorOptions options;
    app->verb("doctor", "Look what this machine, and a server, lack for playing, and say what to do",
              "tavrin doctor --url https://example.org/game/")
        .text("--url", &options.url, "FOLDER_URL", "Look at the server of this image, too")
        .network(&options.net, "Send this line with each request")
        .action([](Output& out) { return examine(options, out); });
}
