#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "ZqImageFiles.h"

#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sstream>
#include <string>
#include <vector>

namespace {
using std::string;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<string>;

struct Outcome {
    int code = -1;
    string out, err;
};

string join(const Words& words) {
    string text;
    for (const string& word : words)
        text += word + " ";
    return text;
}

SxParserKit::SxSymbol parseJson(const string& text) {
    SxJSONParser parser;
    parser.readString(text, "output");
    return parser.getRootSymbol();
}

/// Runs the real client, with its output in files of a folder of this test's own.
class ClientTest : public testing::Test {
protected:
    void SetUp() override {
        const char* bin = std::getenv("TAVRIN_BIN");
        ASSERT_NE(bin, nullptr) << "TAVRIN_BIN must name the client";
        client = bin;
        string pattern = testing::TempDir() + "tavrin-client-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir = pattern + "/";
        ::setenv("XDG_STATE_HOME", (dir + "state").c_str(), 1);
    }
    void TearDown() override {
        if (!dir.empty()) SxFSAction::rm_r(dir);
    }

    /// A shell with the script, in which "$@" is the client's command line.
    SxList<SxString> shellWords(const string& script, const Words& words) const {
        SxList<SxString> arguments = {"-o", "pipefail", "-c", script, "bash", client};
        for (const string& word : words)
            arguments << SxString(word);
        return arguments;
    }
    string redirected(const string& script) const {
        return "{ " + script + "; } >'" + dir + "out' 2>'" + dir + "err'";
    }
    Outcome collect(int code) const {
        return {code, SxFileIO::readUtf8(dir + "out").str(), SxFileIO::readUtf8(dir + "err").str()};
    }
    Outcome runScript(const string& script, const Words& words) const {
        return collect(SxProcess("bash", shellWords(redirected(script), words)).run());
    }
    Outcome run(const Words& words) const { return runScript("\"$@\"", words); }

    void writeFile(const string& path, int64 nBytes, char fill) const {
        SxFSAction::mkdir_p(SxFileInfo(path).getPath());
        const string bytes(static_cast<size_t>(nBytes), fill);
        SxFileIO(path, "wb").writeBuffer(bytes.data(), nBytes);
    }
    /// An image of 3 files with 4 blocks.
    string makeImage(const string& name) const {
        writeFile(dir + "src/a", 1, 'a');
        writeFile(dir + "src/b/c", 4097, 'c');
        writeFile(dir + "src/d", 4096, 'd');
        const Outcome made = run({"content", "create", dir + "src", dir + name});
        EXPECT_EQ(made.code, 0) << made.err;
        return dir + name;
    }
    void writeMap(const string& folder, const std::vector<uint64>& entries) const {
        SxFSAction::mkdir_p(folder);
        SxFileIO file(folder + "/" + ZqImageFiles::IDX, "wb");
        for (const uint64 entry : entries)
            file.write(entry);
    }

    string client, dir;
};

TEST_F(ClientTest, wrongUsageIsOneSentenceAndExitCode2) {
    struct Case {
        Words words;
        string says;
    };
    const std::vector<Case> cases = {
        {{"image", "frobnicate"}, "image: unknown verb 'frobnicate'"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"image", "info"}, "IMAGE is required"},
        {{"image", "info", ""}, "IMAGE is empty"},
        {{"image", "info", "x", "y"}, "unexpected argument 'y'"},
        {{"image", "info", "x", "--fast"}, "unknown option '--fast'"},
        {{"image", "split", "x"}, "--part-size is required"},
        {{"image", "split", "x", "--part-size"}, "--part-size needs a value"},
        {{"image", "split", "x", "--part-size", "0"},
         "--part-size needs a whole number from 1 to 9223372036854775807, not '0'"},
        {{"image", "split", "x", "--part-size", "-5"}, "not '-5'"},
        {{"image", "split", "x", "--part-size", "4k"}, "not '4k'"},
        {{"image", "split", "x", "--part-size", "18446744073709551616"}, "not '18446744073709551616'"},
        {{"image", "map", "x", "--step", "0"},
         "image map: --step needs a whole number from 1 to 9223372036854775807, not '0'"},
        {{"image", "map", "x", "--first=-1"}, "--first needs a whole number from 0 to 9223372036854775807, not '-1'"},
        {{"content", "create", "x"}, "IMAGE is required"},
        {{"image", "info", "x", "\x1b[2J"}, "unexpected argument '\\x1b[2J'"},
    };
    for (const Case& c : cases) {
        const Outcome result = run(c.words);
        EXPECT_EQ(result.code, 2) << join(c.words);
        EXPECT_THAT(result.err, StartsWith("tavrin: ")) << join(c.words);
        EXPECT_THAT(result.err, HasSubstr(c.says)) << join(c.words);
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << join(c.words);
        EXPECT_EQ(result.out, "") << join(c.words);
    }
    for (const Words& words : {Words{}, Words{"image"}, Words{"--json"}}) {
        const Outcome result = run(words);
        EXPECT_EQ(result.code, 2) << join(words);
        EXPECT_THAT(result.err, HasSubstr("Usage: tavrin")) << join(words);
        EXPECT_EQ(result.out, "") << join(words);
    }
}

TEST_F(ClientTest, everyVerbExplainsItself) {
    EXPECT_THAT(run({"--version"}).out, StartsWith("tavrin "));
    int nVerbs = 0;
    for (const string family : {"image", "content", "completion"}) {
        std::istringstream verbs(run({"__complete", family, ""}).out);
        for (string verb; std::getline(verbs, verb); ++nVerbs) {
            const Outcome help = run({family, verb, "--help"});
            EXPECT_EQ(help.code, 0) << verb;
            EXPECT_EQ(help.err, "") << verb;
            EXPECT_THAT(help.out, HasSubstr("Usage: tavrin " + family + " " + verb)) << verb;
            EXPECT_THAT(help.out, HasSubstr("Example:\n  tavrin " + family + " " + verb)) << verb;
            EXPECT_THAT(help.out, HasSubstr("--json")) << verb;
        }
    }
    EXPECT_GE(nVerbs, 9);
}

TEST_F(ClientTest, commonOptionsStandAnywhere) {
    const string image = makeImage("info"); // a folder may be called like a verb
    const string expected = run({"image", "info", image, "--json"}).out;
    EXPECT_THAT(expected, StartsWith("{"));
    for (const Words& words :
         {Words{"--json", "image", "info", image}, Words{"image", "--json", "info", image},
          Words{"image", "info", "--json", image}, Words{"image", "info", "--json", "--", image}}) {
        EXPECT_EQ(run(words).out, expected) << join(words);
    }
    EXPECT_EQ(runScript("cd '" + dir + "' && \"$@\"", {"image", "info", "info", "--json"}).out, expected);
    EXPECT_EQ(run({"--quiet", "image", "info", image}).out, "");
}

TEST_F(ClientTest, failuresAreChainsThatAHostileNameCantDisturb) {
    const Outcome plain = run({"image", "info", dir + "\x1b[2J\n\xff\u202E"});
    EXPECT_EQ(plain.code, 1);
    EXPECT_EQ(plain.out, "");
    EXPECT_THAT(plain.err, StartsWith("tavrin: "));
    EXPECT_THAT(plain.err, HasSubstr("\\x1b[2J\\n\\xff\\u202e"));
    EXPECT_THAT(plain.err, Not(HasSubstr("src/base")));
    EXPECT_THAT(run({"--verbose", "image", "info", dir + "none"}).err, HasSubstr("(src/base/ZqImage"));

    // A chain of several levels.
    writeFile(dir + "broken/app.json", 1, '{');
    writeMap(dir + "broken", {0});
    const Outcome deep = run({"image", "info", dir + "broken"});
    EXPECT_EQ(deep.code, 1);
    std::istringstream lines(deep.err);
    string line;
    int n = 0;
    for (; std::getline(lines, line); ++n)
        EXPECT_THAT(line, StartsWith(n == 0 ? "tavrin: " : "  "));
    EXPECT_GE(n, 2) << deep.err;

    const Outcome noFolder = run({"content", "create", dir + "none", dir + "image"});
    EXPECT_EQ(noFolder.code, 1);
    EXPECT_EQ(noFolder.err, "tavrin: " + dir + "none is not a directory.\n");
    EXPECT_FALSE(SxFSAction::exists(dir + "image"));
}

TEST_F(ClientTest, mapListsWhatIsAskedFor) {
    constexpr uint64 NONE = ~uint64{0};
    writeMap(dir + "m", {1, 0, NONE, 2, 3, NONE, 5, 4, 6, 7, 8, 9});
    const string noEntry = " (not included)\n";
    struct Case {
        Words words;
        string out;
    };
    const std::vector<Case> cases = {
        {{"--first", "3", "--last", "10", "--step", "4"},
         "RAW=4         ZQF=3        \nRAW=8         ZQF=6        \n"},
        {{"--first", "11"}, "RAW=11        ZQF=9        \n"},
        {{"--first", "2", "--last", "3"}, "RAW=2        " + noEntry},
        {{"--last", "1"}, "RAW=0         ZQF=1        \n"},
        {{"--first", "5", "--last", "5"}, ""},
        {{"--first", "12"}, ""},
        {{"--first", "9223372036854775807", "--step", "9223372036854775807"}, ""},
        {{"--step", "9223372036854775807"}, "RAW=0         ZQF=1        \n"},
        {{"--reverse", "--first", "9", "--last", "99"},
         "ZQF=9         RAW=11       \nZQF=10        (hole)\nZQF=11        (hole)\n"},
        {{"--json", "--first", "1", "--last", "3"}, "{\"raw\":1,\"zqf\":0}\n{\"raw\":2,\"zqf\":null}\n"},
        {{"--json", "--reverse", "--first", "9", "--last", "11"},
         "{\"zqf\":9,\"raw\":11}\n{\"zqf\":10,\"raw\":null}\n"},
    };
    for (const Case& c : cases) {
        Words words = {"image", "map", dir + "m"};
        words.insert(words.end(), c.words.begin(), c.words.end());
        const Outcome result = run(words);
        EXPECT_EQ(result.out, c.out) << join(c.words);
        EXPECT_EQ(result.code, 0) << result.err;
    }
    EXPECT_EQ(run({"image", "map", dir + "none"}).code, 1);
}

TEST_F(ClientTest, closedAndFullOutputs) {
    std::vector<uint64> entries(200000);
    for (size_t i = 0; i < entries.size(); ++i)
        entries[i] = i;
    writeMap(dir + "large", entries);
    const Outcome head = runScript("\"$@\" | head -n 2", {"image", "map", dir + "large"});
    EXPECT_EQ(head.code, 0);
    EXPECT_EQ(head.out, "RAW=0         ZQF=0        \nRAW=1         ZQF=1        \n");
    EXPECT_EQ(head.err, "");

    const Outcome full = runScript("\"$@\" >/dev/full", {"image", "map", dir + "large"});
    EXPECT_EQ(full.code, 1);
    EXPECT_THAT(full.err, StartsWith("tavrin: Cannot write to standard output\n  "));

    // With the descriptor closed the listing must not end up in a file of the image.
    EXPECT_EQ(runScript("\"$@\" >&-", {"image", "map", dir + "large"}).code, 0);
}

TEST_F(ClientTest, createInfoVerifySplitJoin) {
    const string image = makeImage("image");
    const string zqf = image + "/" + ZqImageFiles::ZQF;
    const string bytes = SxFileIO::readUtf8(zqf).str();
    EXPECT_EQ(bytes.size(), 4 * 4096u);

    const Outcome shown = run({"image", "info", image, "--json"});
    ASSERT_EQ(shown.code, 0) << shown.err;
    const auto info = parseJson(shown.out);
    for (const char* key : {"raw", "included", "present"})
        EXPECT_EQ(info.getElem("blocks").getElem(key).toInt(), 4) << key;
    EXPECT_EQ(info.getElem("state").toString(), "complete");
    EXPECT_EQ(info.getElem("runs").toInt(), 1);
    EXPECT_EQ(info.getElem("split").getType(), SxParserAst::Null);
    EXPECT_EQ(info.getElem("app").getElem("disk").getElem("sizeZqf").toInt(), 4 * 4096);
    EXPECT_EQ(info.getElem("image").getElem("guid").toString(),
              info.getElem("app").getElem("guid").toString());

    const Outcome fine = run({"image", "verify", image, "--json"});
    EXPECT_EQ(fine.code, 0) << fine.err << fine.out;
    EXPECT_TRUE(parseJson(fine.out).getElem("ok").toBool());

    EXPECT_EQ(run({"image", "split", image, "--part-size", "5000"}).code, 0);
    EXPECT_FALSE(SxFSAction::exists(zqf));
    EXPECT_EQ(
        parseJson(run({"image", "info", image, "--json"}).out).getElem("split").getElem("partSize").toInt(),
        5000);
    const auto joined = parseJson(run({"image", "join", image, "--json"}).out);
    EXPECT_EQ(joined.getElem("sizeZqf").toInt(), 4 * 4096);
    EXPECT_EQ(SxFileIO::readUtf8(zqf).str(), bytes);
    EXPECT_EQ(run({"image", "verify", image}).code, 0);
    EXPECT_FALSE(parseJson(run({"image", "split", image, "--part-size", "999999", "--json"}).out)
                     .getElem("split")
                     .toBool());

    SxFileIO(zqf, "r+b").writeBuffer("X", 1);
    const Outcome wrong = run({"image", "verify", image, "--quiet"});
    EXPECT_EQ(wrong.code, 1);
    EXPECT_THAT(wrong.out, StartsWith("FAULT: "));
    EXPECT_THAT(wrong.out, HasSubstr(ZqImageFiles::ZQF));
    EXPECT_EQ(wrong.err, "tavrin: " + image + ": 1 fault\n");
    const auto faults = parseJson(run({"image", "verify", image, "--json"}).out);
    EXPECT_FALSE(faults.getElem("ok").toBool());
    EXPECT_EQ(faults.getElem("faults").getSize(), 1);
}

TEST_F(ClientTest, interruptedCreateLeavesNothingBehind) {
    SxFSAction::mkdir_p(dir + "long");
    SxFileIO(dir + "long/sparse", "wb").truncate(int64{4} << 30);
    const string old = makeImage("old");
    const string before = SxFileIO::readUtf8(old + "/" + ZqImageFiles::APP_JSON).str();

    for (const auto& [image, signal] : {std::pair(dir + "new", SIGINT), std::pair(old, SIGTERM)}) {
        SxProcess process("bash", shellWords("exec \"$@\" >'" + dir + "out' 2>'" + dir + "err'",
                                             {"content", "create", dir + "long", image}));
        process.start();
        const string staged = image + "/" + ZqImageFiles::STAGING + ZqImageFiles::ZQF;
        ASSERT_TRUE(SxWait::pass(20000, [&] { return SxFSAction::exists(staged); })) << staged;
        ASSERT_EQ(::kill(process.getId(), signal), 0);
        const Outcome stopped = collect(process.wait());
        EXPECT_EQ(stopped.code, 1) << image;
        EXPECT_EQ(stopped.err, "tavrin: stopped\n") << image;
        EXPECT_EQ(stopped.out, "") << image;
        EXPECT_FALSE(SxFSAction::exists(image + "/" + ZqImageFiles::STAGING)) << image;
    }
    EXPECT_FALSE(SxFSAction::exists(dir + "new"));
    EXPECT_EQ(SxFileIO::readUtf8(old + "/" + ZqImageFiles::APP_JSON).str(), before);
    EXPECT_EQ(run({"image", "verify", old}).code, 0);
}

TEST_F(ClientTest, completionOffersWhatCanStandThere) {
    struct Case {
        Words words;
        string candidates;
    };
    const std::vector<Case> cases = {
        {{"con"}, "content\n"},
        {{"image", "s"}, "split\n"},
        {{"--json", "image", "ma"}, "map\n"},
        {{"image", "map", "--st"}, "--step\n"},
        {{"image", "map", "x", "--re"}, "--reverse\n"},
        {{"image", "map", "--step", ""}, ""}, // a value
        {{"image", "map", "--step", "4", "--la"}, "--last\n"},
        {{"image", "map", "--step=4", "--la"}, "--last\n"},
        {{"image", "info", ""}, ""},                // a file
        {{"image", "info", "--", "--js"}, ""},      // a file too
        {{"content", "create", "image", "sp"}, ""}, // behind a verb nothing is a family
        {{"__comp"}, ""},
        {{"no", "such", "--he"}, "--help\n"},
    };
    for (const Case& c : cases) {
        Words words = {"__complete"};
        words.insert(words.end(), c.words.begin(), c.words.end());
        const Outcome result = run(words);
        EXPECT_EQ(result.out, c.candidates) << join(c.words);
        EXPECT_EQ(result.code, 0) << join(c.words);
    }
    EXPECT_THAT(run({"__complete", ""}).out, HasSubstr("image\n"));

    const Outcome bash = runScript("eval \"$(\"$1\" completion bash)\"; COMP_WORDS=(\"$@\"); COMP_CWORD=3; "
                                   "_tavrin \"$1\"; echo \"${COMPREPLY[*]}\"",
                                   {"image", "map", "--re"});
    EXPECT_EQ(bash.out, "--reverse\n") << bash.err;
    for (const string shell : {"zsh", "fish"})
        EXPECT_THAT(run({"completion", shell, "--quiet"}).out, HasSubstr("__complete")) << shell;
}
} // namespace
