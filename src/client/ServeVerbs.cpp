#include "App.h"
#include "Job.h"
#include "Verbs.h"

#include <tavrin/ZqFileServer.h>

namespace {
struct ServeOptions {
    std::optional<uint64> rate;
    SxString folder;
    SxList<SxString> faults;
    int64 port = 0;
    ZqFileServer::Options server;
};

void tellAddress(const ZqFileServer& server, Output* out) {
    if (out->getMode().json) {
        SxParserKit::SxSymbol line;
        line.setType(SxParserAst::Object);
        line.append("url", server.getUrl());
        line.append("port", server.getPort());
        out->listing(line.toJson().str() + "\n");
    }
    out->text(server.getUrl());
    out->flush();
}

void tellTotals(const ZqFileServer& server, Output* out) {
    if (out->getMode().json) {
        SxParserKit::SxSymbol line;
        line.setType(SxParserAst::Object);
        line.append("connections", server.getNConnections());
        line.append("requests", server.getNRequests());
        line.append("bytes", server.getNBytes());
        out->listing(line.toJson().str() + "\n");
    }
    out->text("Served " + exactBytes(server.getNBytes()) + " in " + SxString(server.getNRequests()) +
              " requests on " + server.getNConnections() + " connections.");
}

int serve(const ServeOptions& options, Output& out) {
    ZqFileServer::Options what = options.server;
    what.port = static_cast<uint64>(options.port);
    what.rate = options.rate.value_or(0);
    for (const SxString& name : options.faults)
        what.faults |= ZqFileServer::stringToFault(name);
    ZqFileServer server(options.folder, what);
    untilStopped([&] {
        server.start();
        tellAddress(server, &out);
    });
    server.stop();
    tellTotals(server, &out);
    return ExitSuccess;
}
} // namespace

void registerServeVerbs(App* app) {
    auto options = SxPtr<ServeOptions>::create();
    app->verb("serve", "Serve a folder over HTTP on this machine, as a slow or faulty link would",
              "tavrin serve games --port 8080 --rate 20Mbit --latency 20")
        .argument("DIR", &options->folder, "Folder whose files are served")
        .integer("--port", &options->port, 0, 65535, "Port; any that is free where not given, or with 0")
        .rate("--rate", &options->rate,
              "So much a second, as in 20Mbit, for all connections together; no limit where not given")
        .number("--latency", &options->server.latencyMs, 0, "Milliseconds before each response")
        .choices("--fault", &options->faults, ZqFileServer::getFaultNames(),
                 "What goes wrong; may be given again")
        .action([options](Output& out) { return serve(*options, out); });
}
