#include "ClientTest.h"
#include "NginxServer.h"
#include "ZqFileServer.h"

#include <map>
#include <regex>
#include <sstream>

namespace {

class DoctorVerb : public ClientTest {
protected:
    struct Line {
        string state, text, remedy;
        bool isNeeded = false;
    };
    /// The lines by their names. `script`: of a shell, in which "$@" is the client's command line.
    std::map<string, Line> look(const Words& more, int* code, const string& script = "\"$@\"") {
        Words words = {"doctor", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        const Outcome told = runScript(script, words);
        *code = told.code;
        std::map<string, Line> lines;
        std::istringstream all(told.out);
        for (string line; std::getline(all, line);) {
            const auto object = parseJson(line);
            const auto text = [&](const char* key) { return object.getElem(key).toString().str(); };
            lines[text("name")] = {text("state"), text("text"), text("remedy"),
                                   object.getElem("needed").toBool()};
        }
        return lines;
    }
};

} // namespace

TEST_F(DoctorVerb, WhatAMachineLacksIsToldWithWhatToDo) {
    int code = -1;
    const auto all = look({}, &code, "PATH=/nowhere \"$@\"");
    bool lacks = false;
    for (const auto& [name, line] : all) {
        EXPECT_EQ(line.remedy.empty(), line.state == "ok") << name;
        EXPECT_EQ(line.state == "optional missing", line.state != "ok" && !line.isNeeded) << name;
        lacks = lacks || line.state == "missing";
    }
    EXPECT_EQ(code, lacks ? 1 : 0);
    ASSERT_EQ(all.count("wine"), 1u);
    EXPECT_EQ(all.at("wine").state, "optional missing");
    EXPECT_THAT(all.at("wine").remedy, HasSubstr("--runner"));
    if (::geteuid() != 0) return;
    const auto without =
        look({}, &code, "unshare -m bash -c 'mount --bind /dev/null /dev/fuse && exec \"$@\"' x \"$@\"");
    EXPECT_EQ(code, 1);
    EXPECT_EQ(without.at("fuse").state, "missing");
    EXPECT_THAT(without.at("fuse").remedy, HasSubstr("modprobe fuse"));
    EXPECT_THAT(runScript("\"$@\"", {"doctor"}).out, HasSubstr("rights"));
}

TEST_F(DoctorVerb, WhatAServerLacksIsTold) {
    ZqFileServer server{SxString(makeImage("image"))};
    server.start();
    const string url = server.getUrl().str();
    int code = -1;
    auto lines = look({"--url", url}, &code);
    for (const char* name : {"server", "records", "ranges", "validators"})
        EXPECT_EQ(lines[name].state, "ok") << name << ": " << lines[name].text;
    EXPECT_EQ(lines["certificate"].state, "optional missing");
    EXPECT_EQ(lines["packed"].state, "optional missing");
    dir.write("image/img.zqf.zst", "something");
    EXPECT_EQ(look({"--url", url}, &code)["packed"].state, "ok");

    server.setFault(ZqFileServer::Whole);
    EXPECT_EQ(look({"--url", url}, &code)["ranges"].state, "missing");
    EXPECT_EQ(code, 1);
    server.setFault(ZqFileServer::Whole, false);

    lines = look({"--url", url + "none/"}, &code);
    EXPECT_EQ(code, 1);
    EXPECT_EQ(lines["server"].state, "missing");
    EXPECT_THAT(lines["server"].text, HasSubstr("no app.json there"));
    EXPECT_EQ(lines.count("ranges"), 0u);

    std::filesystem::remove(dir.path("image/img.json"));
    EXPECT_EQ(look({"--url", url}, &code)["records"].state, "missing");
    EXPECT_EQ(code, 1);
    EXPECT_EQ(look({"--url", dir.path("image")}, &code)["server"].state, "missing");
}

TEST_F(DoctorVerb, ACertificateIsJudgedByWhatTheHandshakeSays) {
    makeImage("image");
    const NginxServer server(dir.path("image"));
    const Words trusting = {"--cacert", server.authority()};
    // Names below "localhost" lead to this machine, too.
    const string misnamed = std::regex_replace(server.url(), std::regex("//[^:]*"), "//game.localhost");
    const struct {
        string url;
        bool isTrusting;
        string state, text, remedy = "";
    } cases[] = {
        {server.url(), false, "missing", "no authority that this machine trusts", "--cacert"},
        {misnamed, true, "missing", "for another host", "the address"},
        {server.url(), true, "ok", "trusts"},
        {server.url() + "none/", true, "ok", "trusts"},
        {"https://127.0.0.1:1/ssl/certificate/", true, "optional missing", "wasn't seen"},
    };
    for (const auto& each : cases) {
        int code = -1;
        Words words = {"--url", each.url};
        if (each.isTrusting) words.insert(words.end(), trusting.begin(), trusting.end());
        const Line line = look(words, &code)["certificate"];
        EXPECT_EQ(line.state, each.state) << each.url << " " << line.text;
        EXPECT_THAT(line.text, HasSubstr(each.text)) << each.url;
        EXPECT_THAT(line.remedy, HasSubstr(each.remedy));
    }
}
