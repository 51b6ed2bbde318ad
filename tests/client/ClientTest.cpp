#include "ClientTest.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqArchive.h"

#include <array>
#include <csignal>
#include <filesystem>

namespace {
using testing::Not;

const string ZQF = ZqImageFiles::ZQF;
const string APP_JSON = ZqImageFiles::APP_JSON;
} // namespace

TEST_F(ClientTest, wrongUsageIsOneSentenceAndExitCode2) {
    const std::pair<Words, string> cases[] = {
        {{"image", "frobnicate"}, "image: unknown verb 'frobnicate'"},
        {{"image", "info"}, "IMAGE is required"},
        {{"image", "info", ""}, "IMAGE is empty"},
        {{"image", "info", "x", "\x1b[2J"}, "unexpected argument '\\x1b[2J'"},
        {{"image", "split", "x"}, "--part-size is required"},
        {{"image", "split", "x", "--part-size"}, "--part-size needs a value"},
        {{"image", "split", "x", "--part-size", "0"},
         "image split: --part-size takes bytes, from 1 to 2^63 - 1, as a whole number or with a unit (500MB, "
         "1.5GiB), not '0'"},
        {{"image", "split", "x", "--part-size", "18446744073709551616"}, "not '18446744073709551616'"},
        {{"image", "split", "x", "--part-size", "20Mbit"}, "--part-size takes bytes"},
        {{"run", "x", "--rate", "20Mb/s"}, "run: --rate takes bytes a second, from 1"},
        {{"image", "info", "x", "--speed", "0.0"}, "image info: --speed takes Mbit/s, more than 0"},
        {{"image", "map", "x", "--first=-1"}, "--first needs a whole number from 0 to 9223372036854775807"},
        {{"run", "x", "--header", "A: b\r\nC: d"},
         "--header needs a line \"NAME: VALUE\", not 'A: b\\r\\nC: d'"},
        {{"run", "x", "--header", "Accept:"}, "not 'Accept:'"},
        {{"run", "x", "--trace", "--no-trace"}, "Give one of both: --trace or --no-trace"},
        {{"serve", "x", "--port", "65536"}, "--port needs a whole number from 0 to 65535, not '65536'"},
        {{"image", "pack", "x", "--level", "23"}, "--level needs a whole number from 1 to 22, not '23'"},
    };
    for (const auto& [words, says] : cases) {
        SCOPED_TRACE(testing::PrintToString(words));
        const Outcome result = run(words);
        EXPECT_EQ(result.code, 2);
        EXPECT_THAT(result.err, StartsWith("tavrin: "));
        EXPECT_THAT(result.err, HasSubstr(says));
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1);
        EXPECT_EQ(result.out, "");
    }
    const Outcome bare = run({"image"});
    EXPECT_EQ(bare.code, 2);
    EXPECT_THAT(bare.err, HasSubstr("Usage: tavrin"));
    EXPECT_EQ(bare.out, "");
}

TEST_F(ClientTest, amountsTakeUnits) {
    const string image = makeImage("image");
    const auto speed = [&](const string& text) { return run({"image", "info", image, "--speed", text}); };
    const std::pair<string, string> speeds[] = {{"20", "20"},     {"2.5", "2.5"},          {"20Mbit", "20"},
                                                {"1kB", "0.008"}, {"1.5MiB", "12.582912"}, {"20 Mbit", "20"}};
    for (const auto& [text, mbit] : speeds)
        EXPECT_THAT(speed(text).out, HasSubstr("At " + mbit + " Mbit/s\n")) << text;
    for (const string text : {"", "-1", "1e400", "0", "0kbit", "20Mb", "20mbit", "20Mbit/s", "1.Mbit", ".5",
                              "20  Mbit", "Mbit", "0x1", "1e3", "inf", "20Mbit ", "999999999999TB"}) {
        const Outcome result = speed(text);
        EXPECT_EQ(result.code, 2) << text;
        EXPECT_THAT(result.err, HasSubstr("not '" + text + "'"));
    }
    // The largest that a file's size can have, a byte more, and a fraction of a byte.
    const auto split = [&](const string& size) {
        return run({"image", "split", image, "--part-size", size});
    };
    EXPECT_EQ(split("8388608TiB").code, 2);
    EXPECT_EQ(split("0.4B").code, 2);
    EXPECT_EQ(split("100.5").code, 2);
    EXPECT_THAT(split("4.1kB").out, HasSubstr("parts of 4100 bytes"));
    EXPECT_EQ(run({"image", "join", image}).code, 0);
    EXPECT_EQ(split("9223372036854775807").code, 0);
}

TEST_F(ClientTest, commonOptionsStandAnywhere) {
    const string image = makeImage("info"); // a folder may be called like a verb
    const string expected = run({"image", "info", image, "--json"}).out;
    EXPECT_THAT(expected, StartsWith("{"));
    EXPECT_EQ(run({"--json", "image", "info", image}).out, expected);
    EXPECT_EQ(run({"image", "--json", "info", "--", image}).out, expected);
    EXPECT_EQ(runScript("cd '" + dir.path() + "' && \"$@\"", {"image", "info", "info", "--json"}).out,
              expected);
    EXPECT_EQ(run({"--quiet", "image", "info", image}).out, "");
    EXPECT_THAT(run({"image", "info", "--help"}).out, HasSubstr("Example:\n  tavrin image info "));
}

TEST_F(ClientTest, failuresAreChainsThatAHostileNameCantDisturb) {
    const Outcome plain = run({"image", "info", dir.path("\x1b[2J\n\xff\u202E")});
    EXPECT_EQ(plain.code, 1);
    EXPECT_EQ(plain.out, "");
    EXPECT_THAT(plain.err, HasSubstr("\\x1b[2J\\n\\xff\\u202e"));
    EXPECT_THAT(plain.err, Not(HasSubstr("src/base")));
    EXPECT_THAT(run({"--verbose", "image", "info", dir.path("none")}).err,
                HasSubstr("(src/shared/ZqImageLock"));

    // A chain of several levels.
    dir.write("broken/" + APP_JSON, "{");
    const Outcome deep = run({"image", "info", makeMap("broken", {0})});
    EXPECT_THAT(deep.err, testing::MatchesRegex("tavrin: [^\n]+\n(  [^\n]+\n)+"));

    const Outcome noFolder = run({"content", "create", dir.path("none"), dir.path("image")});
    EXPECT_EQ(noFolder.code, 1);
    EXPECT_EQ(noFolder.err, "tavrin: " + dir.path("none") + " is not a directory.\n");
    EXPECT_FALSE(dir.exists("image"));
}

TEST_F(ClientTest, mapListsWhatIsAskedFor) {
    constexpr uint64 NONE = ~uint64{0};
    const string map = makeMap("m", {1, 0, NONE, 2, 3, NONE, 5, 4, 6, 7, 8, 9});
    const std::pair<Words, string> cases[] = {
        {{"--first", "3", "--step", "4"}, "RAW=4         ZQF=3        \nRAW=8         ZQF=6        \n"},
        {{"--first", "2", "--last", "3"}, "RAW=2         (not included)\n"},
        {{"--first", "5", "--last", "5"}, ""},
        {{"--step", "9223372036854775807"}, "RAW=0         ZQF=1        \n"},
        {{"--reverse", "--first", "9", "--last", "99"},
         "ZQF=9         RAW=11       \nZQF=10        (hole)\nZQF=11        (hole)\n"},
        {{"--json", "--first", "1", "--last", "3"}, "{\"raw\":1,\"zqf\":0}\n{\"raw\":2,\"zqf\":null}\n"},
        {{"--json", "--reverse", "--first", "9", "--last", "11"},
         "{\"zqf\":9,\"raw\":11}\n{\"zqf\":10,\"raw\":null}\n"},
    };
    for (const auto& [options, expected] : cases) {
        const Outcome result = run({"image", "map", map}, options);
        EXPECT_EQ(result.out, expected) << testing::PrintToString(options);
        EXPECT_EQ(result.code, 0) << result.err;
    }
}

TEST_F(ClientTest, closedAndFullOutputs) {
    const Words words = {"image", "map", makeMap("large", std::vector<uint64>(200000, 1))};
    const Outcome head = runScript("\"$@\" | head -n 1", words);
    EXPECT_EQ(head.code, 0);
    EXPECT_EQ(head.out, "RAW=0         ZQF=1        \n");
    EXPECT_EQ(head.err, "");

    const Outcome full = runScript("\"$@\" >/dev/full", words);
    EXPECT_EQ(full.code, 1);
    EXPECT_THAT(full.err, StartsWith("tavrin: Cannot write to standard output\n  "));

    // With the descriptor closed the listing must not end up in a file of the image.
    EXPECT_EQ(runScript("\"$@\" >&-", words).code, 0);
    EXPECT_THAT(dir.read("large/image.lock"), Not(HasSubstr("RAW=")));
}

TEST_F(ClientTest, buildVerifyRaw) {
    dir.write("src/run", "x");
    dir.write("src/data/big", string(1 << 20, 'd'));
    const string image = dir.path("image");
    const Words words = {"image",        "build",  dir.path("src"), image,           "--cmd",  "run",
                         "--arg=-x",     "--arg",  "y z",           "--name",        "runner", "--window",
                         "The \"game\"", "--json", "--raw",         dir.path("kept")};
    const Outcome built = run(words);
    ASSERT_EQ(built.code, 0) << built.err;
    const auto result = parseJson(built.out);
    EXPECT_EQ(result.getElem("files", true).toInt(), 2);
    EXPECT_EQ(result.getElem("folders", true).toInt(), 1);
    EXPECT_GT(result.getElem("sizeMnt", true).toInt(), 0);
    const auto app = parseJson(dir.read("image/" + APP_JSON));
    EXPECT_EQ(app.getElem("app", true).getElem("cmd", true).toString(),
              "{{ZQDRIVE}}/TAVRIN-protected/app/run");
    EXPECT_EQ(app.getElem("app", true).getElem("args", true).toList().getSize(), 2);
    EXPECT_EQ(app.getElem("underflow", true).getElem("window", true).toString(), "The \"game\"");
    EXPECT_EQ(run({"image", "verify", image}).code, 0);

    const auto files = [&] { return parseJson(run({"image", "info", image, "--json"}).out); };
    EXPECT_EQ(files().getElem("files", true).toInt(), 3) << "those of the folder, and gxprefetch.info";
    const string table = dir.read("image/img.files");
    dir.write("image/img.files", table.substr(1));
    EXPECT_EQ(files().getElem("files", true).getType(), SxParserAst::Null);
    EXPECT_THAT(files().getElem("filesWhy", true).toString().str(), HasSubstr("cut off or altered"));
    EXPECT_EQ(run({"image", "verify", image}).code, 1);
    std::filesystem::remove(dir.path("image/img.files"));
    EXPECT_EQ(files().getElem("filesWhy", true).toString(),
              "there is no img.files yet, image order makes it");
    dir.write("image/img.files", table);

    const Outcome raw = run({"image", "raw", image, dir.path("raw"), "--json"});
    ASSERT_EQ(raw.code, 0) << raw.err;
    EXPECT_EQ(parseJson(raw.out).getElem("sizeRaw", true).toInt(),
              static_cast<int64>(dir.read("raw/img.raw").size()));
    EXPECT_TRUE(dir.read("raw/img.raw") == dir.read("kept/img.raw"));

    const Outcome wrongFs = run({"image", "build", dir.path("src"), image, "--fs", "fat"});
    EXPECT_EQ(wrongFs.code, 2);
    EXPECT_THAT(wrongFs.err, HasSubstr("--fs is one of erofs|ext4|squashfs, not 'fat'"));
    const Outcome foreign = run({"image", "build", dir.path("src"), dir.path("kept")});
    EXPECT_EQ(foreign.code, 1);
    EXPECT_THAT(foreign.err, HasSubstr("isn't empty and holds no image"));
    EXPECT_TRUE(dir.exists("kept/img.raw"));
}

TEST_F(ClientTest, aBuildTellsWhatPlayersWillMiss) {
    dir.write("src/run", string(1 << 20, 'd'));
    const string image = dir.path("image"), app = "{{ZQDRIVE}}/TAVRIN-protected/app/";
    for (const auto& [cmd, isDoubtful] : std::map<string, bool>{{"run", false},
                                                                {"sh", false},
                                                                {"/bin/sh", false},
                                                                {app + "run", false},
                                                                {"{{ZQDRIVE}}/other", false},
                                                                {"C:/game.exe", false},
                                                                {"no-such-game", true},
                                                                {"/none/game", true},
                                                                {app + "ruin", true}}) {
        const Outcome built = run({"image", "build", dir.path("src"), image, "--cmd", cmd, "--quiet"});
        EXPECT_EQ(built.code, 0) << built.err;
        EXPECT_EQ(built.err, isDoubtful ? "tavrin: The command '" + cmd +
                                              "' is neither a file of the folder '" + dir.path("src") +
                                              "/' nor a program of this machine; players "
                                              "need it on theirs\n"
                                        : "")
            << cmd;
    }
    run({"image", "build", dir.path("src"), image, "--cmd", "no-such-game"});
    dir.write("template.json", dir.read("image/app.json"));
    EXPECT_THAT(run({"image", "build", dir.path("src"), image, "--app", dir.path("template.json")}).err,
                HasSubstr("nor a program of this machine"));
    const string built = run({"image", "build", dir.path("src"), image, "--cmd", "run"}).out;
    const string info = run({"image", "info", image}).out;
    for (const string& text : {built, info}) {
        EXPECT_THAT(text, HasSubstr("At 20 Mbit/s players are safe to start in 0.4 s, when "));
        EXPECT_THAT(text, HasSubstr("\n  tavrin image optimize " + image + " ORDER\n"));
    }
    EXPECT_THAT(info, HasSubstr("\nFile system   erofs\n"));
    EXPECT_EQ(parseJson(run({"image", "info", image, "--json"}).out).getElem("volume", true).toString(),
              "erofs");
}

TEST_F(ClientTest, aRunTouchesNothingThatIsntAnImagesOrAReport) {
    dir.write("letters/one.txt", "dear");
    for (const Words& words : {Words{"run"}, Words{"mount"}}) {
        Words all = words;
        all.insert(all.end(), {dir.path("letters"), "--url", "http://127.0.0.1:1/"});
        const Outcome foreign = run(all);
        EXPECT_EQ(foreign.code, 1);
        EXPECT_THAT(foreign.err, HasSubstr("isn't empty and holds no image"));
    }
    EXPECT_FALSE(dir.exists("letters/image.lock"));
    EXPECT_EQ(run({"run", dir.path("absent")}).code, 1);
    EXPECT_FALSE(dir.exists("absent"));
    dir.write("own", "");
    std::filesystem::create_symlink(dir.path("own"), dir.path("link"));
    for (const string& report : {dir.path("link"), dir.path(), string("/dev/null")}) {
        const Outcome refused = run({"run", dir.path("absent"), "--report", report});
        EXPECT_EQ(refused.code, 1);
        EXPECT_THAT(refused.err, HasSubstr("'" + report + "' is not a plain file"));
    }
    EXPECT_TRUE(std::filesystem::is_symlink(dir.path("link")));
}

TEST_F(ClientTest, createInfoVerifySplitJoin) {
    const string image = makeImage("image");
    const string bytes = dir.read("image/" + ZQF);

    const Outcome shown = run({"image", "info", image, "--json"});
    ASSERT_EQ(shown.code, 0) << shown.err;
    const auto info = parseJson(shown.out);
    EXPECT_EQ(info.getElem("blocks").getElem("present").toInt(), 4);
    EXPECT_EQ(info.getElem("state").toString(), "complete");
    EXPECT_EQ(info.getElem("split").getType(), SxParserAst::Null);
    EXPECT_EQ(info.getElem("files").getType(), SxParserAst::Null);
    const string why = "the image holds no file system that is known";
    EXPECT_EQ(info.getElem("filesWhy").toString().str(), why);
    EXPECT_THAT(run({"image", "info", image}).out,
                HasSubstr("\nFiles         " + why + "; an order goes by neighbours on the disk\n"));
    EXPECT_EQ(info.getElem("app").getElem("disk").getElem("sizeZqf").toInt(), 4 * 4096);
    EXPECT_TRUE(parseJson(run({"image", "verify", image, "--json"}).out).getElem("ok").toBool());

    EXPECT_EQ(run({"image", "split", image, "--part-size", "5000"}).code, 0);
    EXPECT_FALSE(dir.exists("image/" + ZQF));
    const auto split = parseJson(run({"image", "info", image, "--json"}).out).getElem("split");
    EXPECT_EQ(split.getElem("partSize").toInt(), 5000);
    const auto joined = parseJson(run({"image", "join", image, "--json"}).out);
    EXPECT_EQ(joined.getElem("sizeZqf").toInt(), 4 * 4096);
    EXPECT_EQ(dir.read("image/" + ZQF), bytes);

    dir.write("image/" + ZQF, "X" + bytes.substr(1));
    const Outcome wrong = run({"image", "verify", image, "--quiet"});
    EXPECT_EQ(wrong.code, 1);
    EXPECT_THAT(wrong.out, testing::AllOf(StartsWith("FAULT: "), HasSubstr(ZQF)));
    EXPECT_EQ(wrong.err, "tavrin: " + image + ": 1 fault\n");
    EXPECT_EQ(parseJson(run({"image", "verify", image, "--json"}).out).getElem("faults").getSize(), 1);
}

TEST_F(ClientTest, verifyComparesWithTheRawImage) {
    const string image = makeImage("image");
    const string bytes = dir.read("image/" + ZQF);
    dir.write("raw/img.raw", bytes);
    const Words words = {"image", "verify", image, "--raw", dir.path("raw")};
    const auto counters = [&] { return parseJson(run(words, {"--json"}).out); };

    const Outcome right = run(words);
    EXPECT_EQ(right.code, 0) << right.err;
    EXPECT_THAT(right.out, testing::AllOf(HasSubstr("4 blocks, 4 compared"), Not(HasSubstr("Verifying"))));
    EXPECT_EQ(counters().getElem("raw").getElem("md5Zqf").toString().getSize(), 32);

    // Fewer blocks, of which all but one are right.
    dir.write("image/" + ZQF, bytes.substr(0, 3 * 4096));
    const Outcome partial = run(words);
    EXPECT_EQ(partial.code, 0) << partial.err;
    EXPECT_THAT(partial.out, HasSubstr("beyond the present end of img.zqf: 1"));
    dir.write("image/" + ZQF, bytes.substr(0, 4096) + string(2 * 4096, 'x'));
    const Outcome wrong = run(words, {"--quiet"});
    EXPECT_EQ(wrong.code, 1);
    EXPECT_EQ(wrong.out, "FAULT: '" + image + "/" + ZQF + "': 2 blocks differ from '" + dir.path("raw") +
                             "/img.raw', first RAW block 1\n");
    const auto raw = counters().getElem("raw");
    EXPECT_EQ(raw.getElem("invalid").toInt(), 3);
    EXPECT_EQ(raw.getElem("wrong").toInt(), 2);
    EXPECT_EQ(raw.getElem("missing").toInt(), 1);

    EXPECT_THAT(run({"image", "verify", image, "--raw", dir.path("none")}).err,
                HasSubstr("File " + dir.path("none") + "/img.raw not found"));
    EXPECT_EQ(run({"image", "verify", image, "--raw="}).code, 2);
}

// What scripts rely on: keys, exit codes, and that a second application is no failure.
TEST_F(ClientTest, patchVerbs) {
    if (!std::filesystem::exists(std::filesystem::path(client).parent_path() / "hpatchz"))
        GTEST_SKIP() << "the tool hpatchz isn't there";
    const string older = makeImage("old");
    dir.write("src/d", string(4096, 'e'));
    const Outcome made = run({"content", "create", dir.path("src"), dir.path("new")});
    ASSERT_EQ(made.code, 0) << made.err;
    const string newer = dir.path("new"), patch = dir.path("patch");
    EXPECT_EQ(run({"patch", "create", older, newer, patch, "--compression", "ZSTD", "--level", "23"}).code,
              2);
    const Outcome level =
        run({"patch", "create", older, newer, patch, "--compression", "ZLIB", "--level", "0"});
    EXPECT_EQ(level.code, 1);
    EXPECT_THAT(level.err, HasSubstr("Invalid compression level 0 for zlib"));
    const Outcome created =
        run({"patch", "create", older, newer, patch, "--compression", "REPLACE", "--json"});
    ASSERT_EQ(created.code, 0) << created.err;
    EXPECT_EQ(parseJson(created.out).getElem("blocks").getElem("changed").toInt(), 1);
    EXPECT_EQ(run({"patch", "verify", patch}).code, 0);

    const Outcome status = run({"patch", "status", older, patch, "--json"});
    EXPECT_EQ(status.code, 0) << status.err;
    EXPECT_EQ(parseJson(status.out).getElem("state").toString(), "none");
    EXPECT_TRUE(parseJson(status.out).getElem("fits").toBool());
    for (const Words& wrong :
         std::vector<Words>{{older}, {older, patch, "--resume"}, {older, patch, "--fetch"}})
        EXPECT_EQ(run({"patch", "apply"}, wrong).code, 2);
    const Outcome none = run({"patch", "apply", older, "--resume"});
    EXPECT_EQ(none.code, 1);
    EXPECT_THAT(none.err, HasSubstr("none to go on with"));
    const Outcome applied = run({"patch", "apply", older, patch, "--json"});
    ASSERT_EQ(applied.code, 0) << applied.err;
    for (const char* key :
         {"from", "to", "parts", "bytesDownload", "bytesWritten", "bytesExtra", "seconds", "stage", "part"})
        EXPECT_TRUE(parseJson(applied.out).getElem(key, false).isValid()) << key;
    EXPECT_EQ(parseJson(applied.out).getElem("stage").toInt(), 6);
    EXPECT_EQ(run({"patch", "apply", older, patch}).code, 0);
    ASSERT_EQ(run({"image", "raw", newer, dir.path("raw")}).code, 0);
    EXPECT_EQ(run({"image", "verify", older, "--raw", dir.path("raw")}).code, 0);
    EXPECT_EQ(run({"patch", "apply", newer, patch, "--consume"}).code, 0);
    EXPECT_FALSE(dir.exists("patch"));
    dir.write("patch/patch.json", "{}");
    EXPECT_EQ(run({"patch", "verify", patch}).code, 1);
}

TEST_F(ClientTest, interruptedCreateLeavesNothingBehind) {
    std::filesystem::resize_file(dir.write("long/sparse", ""), uint64{4} << 30);
    const string old = makeImage("old");
    const string before = dir.read("old/" + APP_JSON);
    for (const auto& [image, signal] :
         {std::pair(string("new"), SIGINT), std::pair(string("old"), SIGTERM)}) {
        SxProcess process(
            "bash", shellWords("exec \"$@\"", {"content", "create", dir.path("long"), dir.path(image)}));
        process.start();
        const string staged = image + "/" + ZqImageFiles::STAGING + ZQF;
        ASSERT_TRUE(SxWait::pass(20000, [&] { return dir.exists(staged); })) << staged;
        ASSERT_EQ(::kill(process.getId(), signal), 0);
        EXPECT_EQ(process.wait(), 1) << image;
        EXPECT_EQ(dir.read("err"), "tavrin: stopped\n") << image;
        EXPECT_FALSE(dir.exists(image + "/" + ZqImageFiles::STAGING)) << image;
    }
    EXPECT_FALSE(dir.exists("new"));
    EXPECT_EQ(dir.read("old/" + APP_JSON), before);
    EXPECT_EQ(run({"image", "verify", old}).code, 0);
}

TEST_F(ClientTest, completionOffersWhatCanStandThere) {
    const std::pair<Words, string> cases[] = {
        {{"--json", "image", "ma"}, "map\n"},
        {{"image", "map", "x", "--re"}, "--reverse\n"},
        {{"image", "map", "--step", ""}, ""}, // a value
        {{"image", "map", "--step=4", "--la"}, "--last\n"},
        {{"image", "info", ""}, ""},                // a file
        {{"image", "info", "--", "--js"}, ""},      // a file too
        {{"content", "create", "image", "sp"}, ""}, // after a verb nothing is a family
        {{"__comp"}, ""},
    };
    for (const auto& [typed, candidates] : cases) {
        EXPECT_EQ(run({"__complete"}, typed).out, candidates) << testing::PrintToString(typed);
    }
    const Outcome bash = runScript("eval \"$(\"$1\" completion bash)\"; COMP_WORDS=(\"$@\"); COMP_CWORD=3; "
                                   "_tavrin \"$1\"; echo \"${COMPREPLY[*]}\"",
                                   {"image", "map", "--re"});
    EXPECT_EQ(bash.out, "--reverse\n") << bash.err;
}

TEST_F(ClientTest, serveTellsItsAddressFirstAndEndsOnASignal) {
    dir.write("served/a", string(300000, 'a'));
    const string script = R"(
        "$@" > ')" + dir.path("lines") +
                          R"(' & server=$!
        until [ -s ')" + dir.path("lines") +
                          R"(' ]; do sleep 0.01; done
        read -r line < ')" +
                          dir.path("lines") +
                          R"('; port=${line//[^0-9 ]/}; port=${port#127001}
        exec 3<>/dev/tcp/127.0.0.1/$port
        printf 'GET /a HTTP/1.1\r\nConnection: close\r\n\r\n' >&3
        cat <&3
        kill -TERM $server
        wait $server)";
    const Outcome plain = runScript(script, {"serve", dir.path("served"), "--latency", "1"});
    EXPECT_EQ(plain.code, 0) << plain.err;
    EXPECT_THAT(plain.out, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_GT(plain.out.size(), 300000U);
    EXPECT_THAT(dir.read("lines"),
                testing::MatchesRegex("http://127.0.0.1:[0-9]+/\nServed 300000 bytes[^\n]+\n"));

    EXPECT_EQ(run({"serve", dir.path("served"), "--fault", "none"}).code, 2);
    EXPECT_THAT(run({"serve", dir.path("none")}).err, StartsWith("tavrin: Cannot serve folder '"));
}
