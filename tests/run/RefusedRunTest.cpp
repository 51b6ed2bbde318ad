#include "SmallDisk.h"
#include "StreamRun.h"

#include <gmock/gmock.h>
#include <regex>

namespace {

/// A run, and a mount from an address, that must be refused before anything is downloaded.
class RefusedRun : public StreamRun {
protected:
    /// Sets a value of the record that is served.
    void serve(const string& key, const string& value) {
        const string app = dir.read("served/app.json");
        dir.write("served/app.json", std::regex_replace(app, std::regex("\"" + key + "\": [^,\n]*"),
                                                        "\"" + key + "\": " + value));
    }
    /// `script`: of a shell, in which "$@" is the client's command line.
    Outcome attempt(const string& verb, const string& address = "", const string& script = "\"$@\"") {
        SxList<SxString> words = {
            "-c",           SxString("{ " + script + "; } >/dev/null 2>'" + dir.path("err") + "'"),
            "bash",         SxString(client),
            SxString(verb), SxString(got),
            "--url",        address.empty() ? server->getUrl() : SxString(address)};
        if (verb == "run") words << SxString("--now");
        const int code = SxProcess("bash", words).run();
        return {code, "", dir.read("err")};
    }
    void expectNothing(const Outcome& refused, const string& why) {
        EXPECT_EQ(refused.code, 1);
        EXPECT_THAT(refused.err, HasSubstr(why));
        EXPECT_THAT(refused.err, testing::Not(HasSubstr("Internal error")));
        EXPECT_FALSE(fs::exists(got)) << "what was made for nothing stays";
    }
};

} // namespace

TEST_F(RefusedRun, ACommandThatCanNotBeIsToldBeforeTheDownload) {
    serve("cmd", "\"/usr/games/nosuch\"");
    expectNothing(attempt("run"), "no such program");
    serve("cmd", "\"\"");
    expectNothing(attempt("run"), "is empty");
    serve("cmd", "\"{{ZQDRIVE}}/game.exe\"");
    expectNothing(attempt("run", "", "PATH=/nowhere \"$@\""), "there is no wine");
    // What only the drive can tell is told in words of the player's.
    serve("cmd", "\"{{ZQDRIVE}}/nosuch\"");
    const Outcome late = attempt("run");
    EXPECT_EQ(late.code, 1);
    EXPECT_THAT(late.err, testing::AllOf(HasSubstr("can't be started by the command '{{ZQDRIVE}}/nosuch'"),
                                         testing::Not(HasSubstr("Internal error"))));
}

TEST_F(RefusedRun, AWrongAddressLeavesNoFolder) {
    got = dir.path("new/got");
    const string address = server->getUrl().str();
    for (const string verb : {"run", "mount", "fetch"}) {
        SCOPED_TRACE(verb);
        expectNothing(attempt(verb, address + "none/"), "has no app.json there");
        expectNothing(attempt(verb, served), "an image folder of this machine");
        EXPECT_FALSE(fs::exists(dir.path("new")));
    }
    dir.write("served/page/app.json", "<html><title>Index of /</title>");
    expectNothing(attempt("run", address + "page"), "a listing of files");
    // A folder that was there isn't this command's.
    fs::create_directories(got);
    EXPECT_EQ(attempt("run", address + "none/").code, 1);
    EXPECT_TRUE(fs::is_directory(got));
}

TEST_F(RefusedRun, AMachineWithoutFuseIsToldBeforeTheDownload) {
    const string without = "unshare -m bash -c 'mount --bind /dev/null /dev/fuse && exec \"$@\"' x \"$@\"";
    for (const string verb : {"run", "mount"})
        expectNothing(attempt(verb, "", without), "no device /dev/fuse");
}

TEST_F(RefusedRun, ADiskOnWhichNothingCanStartIsToldBeforeTheDownload) {
    const SmallDisk disk(dir.path("small"), "2m");
    got = dir.path("small/got");
    serve("sizeMnt", std::to_string(fs::file_size(served + "/img.zqf")));
    for (const string verb : {"run", "mount"})
        expectNothing(attempt(verb), " MB for that");
    // The start waits for all of an image without a load profile, and the drive doesn't.
    serve("sizeMnt", "8192");
    const Outcome waits = run({"run", got, "--url", server->getUrl().str()});
    expectNothing(waits, "The start needs the first ");
    EXPECT_THAT(waits.err, HasSubstr("--now"));
}
