#include "Failure.h"
#include "FaultOs.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "TempDir.h"
#include "VirtualClock.h"
#include "ZqMachineRoot.h"
#include "ZqRegistry.h"
#include "ZqWine.h"

#include <cerrno>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Item = ZqRegistry::Item;

const std::string SYSTEM = "prefix/system.reg", USER = "prefix/user.reg";
const std::string HEAD =
    "WINE REGISTRY Version 2\n;; All keys relative to REGISTRY\\\\Machine\n\n#arch=win64\n";

Item item(const char* key, const char* name, ZqRegistry::RegValType type = ZqRegistry::RegSz,
          const SxString& data = "x") {
    Item result;
    result.key = key;
    result.value = name;
    result.regType = type;
    result.data = data;
    return result;
}

class RegistryTest : public testing::Test {
public:
    RegistryTest() { ZqMachineRoot::set(dir.path("prefix")); }
    ~RegistryTest() override { ZqMachineRoot::set(""); }

protected:
    /// The text of a section without its times.
    std::string section(const std::string& file, const std::string& key) const {
        const std::string text = dir.read(file);
        const size_t begin = text.find("[" + key + "]");
        if (begin == std::string::npos) return "none";
        const size_t values = text.find('\n', text.find("#time=", begin)) + 1;
        return text.substr(values, text.find("\n[", values) - values);
    }

    const TempDir dir;
};

} // namespace

TEST_F(RegistryTest, eachKindIsWrittenAsWineDoes) {
    EXPECT_FALSE(ZqRegistry::contains("HKLM/Software", "Lab"));
    EXPECT_FALSE(dir.exists("prefix")) << "reading makes nothing";
    struct Case {
        ZqRegistry::RegValType type;
        SxString data;
        const char* line;
        const char* readBack = nullptr;
    };
    const Case cases[] = {
        {ZqRegistry::RegSz, "C:\\a \"b\" [c]", R"("v"="C:\\a \"b\" [c]")"},
        {ZqRegistry::RegSz,
         "tab\tü5é\x01"
         "7\x02x😀\n",
         R"("v"="tab\t\x00fc5\xe9\0017\2x\xd83d\xde00\n")"},
        {ZqRegistry::RegSz, "", R"("v"="")"},
        {ZqRegistry::RegDword, "4294967295", R"("v"=dword:ffffffff)"},
        {ZqRegistry::RegDword, "0x1A", R"("v"=dword:0000001a)", "26"},
        {ZqRegistry::RegQword, "4294967296", R"("v"=hex(b):00,00,00,00,01,00,00,00)"},
        {ZqRegistry::RegExpandSz, "%TEMP%\\x", R"("v"=str(2):"%TEMP%\\x")"},
        {ZqRegistry::RegMultiSz, "one\n2", R"("v"=str(7):"one\0002\0")"},
        {ZqRegistry::RegMultiSz, "", R"("v"=str(7):"")"},
        {ZqRegistry::RegBinary, "00,ff A0", R"("v"=hex:00,ff,a0)", "00ffa0"},
    };
    for (const Case& c : cases) {
        ZqRegistry::setVal("HKLM/Software/Lab", "v", c.type, c.data);
        EXPECT_EQ(section(SYSTEM, "Software\\\\Lab"), std::string(c.line) + "\n");
        EXPECT_EQ(ZqRegistry::getVal("hklm\\SOFTWARE\\lab", "V"), c.readBack ? c.readBack : c.data);
    }
    EXPECT_THAT(dir.read(SYSTEM), StartsWith(HEAD + "\n[Software\\\\Lab] "));

    // Long bytes go on in further lines, and come back.
    SxString bytes;
    for (unsigned i = 0; i < 200; ++i)
        bytes += SxString::sprintf("%02x", i);
    ZqRegistry::setVal("HKCU/Software/Lab", "", ZqRegistry::RegBinary, bytes);
    EXPECT_THAT(section(USER, "Software\\\\Lab"), AllOf(StartsWith("@=hex:00,01,"), HasSubstr(",\\\n  ")));
    EXPECT_EQ(ZqRegistry::getVal("HKCU/Software/Lab", ""), bytes);
    EXPECT_FALSE(ZqRegistry::isVal("HKLM/Software/Lab", ""));
}

TEST_F(RegistryTest, namesRootsAndLinks) {
    dir.write(SYSTEM, HEAD + R"(
[Software\\Classes\\.txt]
@="text"

[Software\\Gr\xf6\x00dfe\[1\]\\Deep]
"a"=dword:1

[Software\\Wow6432Node\\Classes] 1
#link
"SymbolicLinkValue"=hex(6):5c,00,52,00,65,00,67,00,69,00,73,00,74,00,72,00,79,\
  00,5c,00,4d,00,61,00,63,00,68,00,69,00,6e,00,65,00,5c,00,53,00,6f,00,66,00,\
  74,00,77,00,61,00,72,00,65,00,5c,00,43,00,6c,00,61,00,73,00,73,00,65,00,73,00
)");
    EXPECT_EQ(ZqRegistry::getVal("HKCR/.TXT", ""), "text");
    EXPECT_EQ(ZqRegistry::getVal("HKLM/Software/WOW6432NODE/classes/.txt", ""), "text");
    EXPECT_TRUE(ZqRegistry::contains("HKLM", "software"));
    EXPECT_TRUE(ZqRegistry::contains("HKLM/Software", "GRÖßE[1]"));
    EXPECT_TRUE(ZqRegistry::contains("HKLM/Software/größe[1]/deep", "A"));
    EXPECT_FALSE(ZqRegistry::isVal("HKLM/Software/größe[1]", "deep"));
    EXPECT_FALSE(ZqRegistry::contains("HKLM/Software/Grö", "ße[1]"));

    ZqRegistry::setVal("HKLM/Software/Wow6432Node/Classes/new", "", ZqRegistry::RegSz, "x");
    EXPECT_EQ(section(SYSTEM, "Software\\\\Classes\\\\new"), "@=\"x\"\n");
    ZqRegistry::setVal("HKLM/SOFTWARE/WOW6432NODE/Lab", "", ZqRegistry::RegSz, "x");
    EXPECT_EQ(section(SYSTEM, "SOFTWARE\\\\Wow6432Node\\\\Lab"), "@=\"x\"\n");

    EXPECT_THAT(failureOf([] { ZqRegistry::getVal("HKLM/Software/None", "n"); }),
                HasSubstr("the value 'n' of the registry key 'HKLM/Software/None'"));
    for (const char* key : {"", "/", "HKEY_LOCAL_MACHINE/x", "HKUS/x"})
        EXPECT_THAT(failureOf([key] { ZqRegistry::contains(key, "x"); }), HasSubstr("HKLM, HKCU or HKCR"));
}

TEST_F(RegistryTest, whatIsntTouchedKeepsItsBytes) {
    const std::string before =
        HEAD + "unknown line\n\n[B\\\\C] 12\n#time=1d\n#class=\"k\"\n; comment\n"
               "\"a\"=hex(0):\n\"D\"=\"old\"\n\"z\" = str(7):\"x\\0\" \n\n[b] 3\n\n[M]\n#link\n";
    const std::string heading = "[B\\\\C] 12\n";
    const auto after = [&](const std::string& from, const std::string& to) {
        std::string text = before;
        return text.replace(text.find(from), from.size(), to);
    };
    const std::pair<Item, std::string> cases[] = {
        {item("HKLM/b/c", "d"), after("\"D\"=\"old\"", "\"D\"=\"x\"")},
        {item("HKLM/b/c", "D", ZqRegistry::RegSz, "old"), before},
        {item("HKLM/b/c", "e"), after("\"z\" =", "\"e\"=\"x\"\n\"z\" =")},
        {item("HKLM/b/c", "zz"), after("\\0\" \n", "\\0\" \n\"zz\"=\"x\"\n")},
        {item("HKLM/b", ""), after("[b] 3\n", "[b] 3\n@=\"x\"\n")},
    };
    for (const auto& [entry, expected] : cases) {
        dir.write(SYSTEM, before);
        ::chmod(dir.path(SYSTEM).c_str(), 0640);
        ZqRegistry::createRegEntriesAsAdmin({entry}, "E:");
        EXPECT_EQ(dir.read(SYSTEM), expected) << entry.value;
        EXPECT_FALSE(dir.exists(USER));
    }
    // A new key comes to its place in the order of the tree.
    dir.write(SYSTEM, before);
    ZqRegistry::setVal("HKLM/B/Ca", "v", ZqRegistry::RegSz, "x");
    EXPECT_THAT(dir.read(SYSTEM), HasSubstr("\n\n[B\\\\Ca] "));
    ZqRegistry::removeRegEntriesAsAdmin({item("HKLM/B/Ca", "v")});
    EXPECT_EQ(dir.read(SYSTEM), before);
}

TEST_F(RegistryTest, removalTakesWhatItNames) {
    const SxList<Item> list = {item("HKLM/Software/Lab", "a"), item("HKLM/Software/Lab/Sub/Deep", "b"),
                               item("HKLM/Software/Lab/Other", "c"), item("HKCU/Software/Lab", "")};
    ZqRegistry::removeRegEntriesAsAdmin(list);
    EXPECT_FALSE(dir.exists("prefix"));
    ZqRegistry::createRegEntriesAsAdmin(list, "");
    ZqRegistry::setVal("HKLM/Software/Lab/Other", "kept", ZqRegistry::RegSz, "x");
    ZqRegistry::removeRegEntriesAsAdmin(list);
    EXPECT_FALSE(ZqRegistry::contains("HKLM/Software/Lab", "a"));
    EXPECT_FALSE(ZqRegistry::contains("HKLM/Software/Lab/Sub", "Deep"));
    EXPECT_TRUE(ZqRegistry::contains("HKLM/Software/Lab", "Sub")) << "nobody named this key";
    EXPECT_EQ(section(SYSTEM, "Software\\\\Lab\\\\Other"), "\"kept\"=\"x\"\n");
    EXPECT_FALSE(ZqRegistry::contains("HKCU/Software", "Lab"));
    EXPECT_TRUE(ZqRegistry::contains("HKCU", "Software"));

    // A key and its parent, both named: the parent becomes empty too.
    const SxList<Item> both = {item("HKLM/P", "v"), item("HKLM/P/Q", "v")};
    ZqRegistry::createRegEntriesAsAdmin(both, "");
    ZqRegistry::removeRegEntriesAsAdmin(both);
    EXPECT_FALSE(ZqRegistry::contains("HKLM", "P"));
}

TEST_F(RegistryTest, whatStoodThereComesBackWithItsKeys) {
    ZqRegistry::setVal("HKCU/Software/Game", "Level", ZqRegistry::RegBinary, "0bad");
    ZqRegistry::setVal("HKCU/Software/Game/Kept", "", ZqRegistry::RegSz, "x");
    ZqRegistry::removeRegEntriesAsAdmin({item("HKCU/Software/Game/Kept", "none")});
    const SxList<Item> list = {item("HKCU\\software\\GAME", "level", ZqRegistry::RegDword, "7"),
                               item("HKCU/Software/Game/Kept/New/Newer", "a"),
                               item("HKCU/Software/Game/Kept/New", "b"), item("HKLM/Made/x", "c"),
                               item("HKLM/Made/x", "C", ZqRegistry::RegSz, "{{ZQDRIVE}}")};
    const std::string before = dir.read(USER);
    SxList<ZqRegistry::State> former;
    EXPECT_THAT(failureOf([&] {
                    ZqRegistry::createNoted(list, "E:", {}, [](const auto&, const auto&) {
                        throw SxException("the note can't be written", "", 0);
                    });
                }),
                StartsWith("the note"));
    EXPECT_EQ(dir.read(USER), before) << "nothing without its note";
    const auto write = [&](const SxList<ZqRegistry::State>& made) {
        ZqRegistry::createNoted(list, "E:", made, [&](const auto& states, const auto& written) {
            former = states;
            EXPECT_EQ(states.getSize(), 4) << "each value once";
            EXPECT_EQ(written.getSize(), 4);
        });
    };
    write({});
    EXPECT_EQ(ZqRegistry::getVal("HKLM/Made/x", "c"), "E:");
    EXPECT_EQ(former(1).nMade, 2);
    EXPECT_EQ(former(3).nMade, 2);
    // What another change has made isn't taken to have been there.
    const SxList<ZqRegistry::State> first = former;
    write(first);
    EXPECT_EQ(former(1).nMade, 2);
    EXPECT_TRUE(former(1).isThere) << "who asks knows whose it is";
    ZqRegistry::setVal("HKLM/Made", "others", ZqRegistry::RegSz, "x");
    ZqRegistry::put(first);
    EXPECT_EQ(ZqRegistry::getVal("HKCU/Software/Game", "Level"), "0bad");
    EXPECT_TRUE(ZqRegistry::contains("HKCU/Software/Game", "Kept"));
    EXPECT_FALSE(ZqRegistry::contains("HKCU/Software/Game/Kept", "New"));
    EXPECT_FALSE(ZqRegistry::contains("HKLM/Made", "x"));
    EXPECT_TRUE(ZqRegistry::contains("HKLM", "Made")) << "it holds something else by now";
    ZqRegistry::put(first);
    EXPECT_EQ(section(USER, "Software\\\\Game"), "\"Level\"=hex:0b,ad\n");
}

TEST_F(RegistryTest, aListIsWrittenWholeOrNotAtAll) {
    const std::pair<Item, const char*> bad[] = {
        {item("HKLM/b", "v", ZqRegistry::RegDword, "4294967296"), "isn't a number of 32 bits"},
        {item("HKLM/b", "v", ZqRegistry::RegDword, "-1"), "isn't a number of 32 bits"},
        {item("HKLM/b", "v", ZqRegistry::RegQword, "0x"), "isn't a number of 64 bits"},
        {item("HKLM/b", "v", ZqRegistry::RegBinary, "f"), "isn't bytes"},
        {item("HKLM/b", "v", ZqRegistry::RegMultiSz, "a\n\nb"), "empty text"},
        {item("HKLM/b", "v", static_cast<ZqRegistry::RegValType>(7)), "kind of registry value 7"},
        {item("HKLM/", "v"), "a root of the registry holds no values"},
        {item("HKXX/b", "v"), "HKLM, HKCU or HKCR"},
    };
    for (const auto& [entry, says] : bad) {
        const SxList<Item> list = {item("HKLM/a", "v"), entry};
        const std::string failure = failureOf([&] { ZqRegistry::createRegEntriesAsAdmin(list, ""); });
        EXPECT_THAT(failure,
                    AllOf(StartsWith("Cannot set the value 'v' of the registry key '"), HasSubstr(says)));
        EXPECT_FALSE(dir.exists("prefix"));
    }
    // The second file can't be written, or isn't one: the first is as it was, or gone again.
    ZqRegistry::setVal("HKCU/old", "v", ZqRegistry::RegSz, "x");
    const TreeSnapshot before = dir.snapshot();
    FaultOs os(dir.path());
    os.failNth(FaultOs::Op::Rename, 2, ENOSPC);
    const SxList<Item> list = {item("HKLM/a", "v"), item("HKCU/a", "v")};
    EXPECT_THAT(failureOf([&] { ZqRegistry::createRegEntriesAsAdmin(list, ""); }), HasSubstr(USER));
    EXPECT_EQ(dir.snapshot(), before);
    ZqRegistry::createRegEntriesAsAdmin(list, "");
    EXPECT_TRUE(ZqRegistry::isVal("HKLM/a", "v") && ZqRegistry::isVal("HKCU/a", "v"));
}

TEST_F(RegistryTest, damagedFilesAreRefusedAndLeftAlone) {
    const std::string key = HEAD + "[a]\n";
    const std::pair<std::string, const char*> cases[] = {
        {"", "it doesn't begin with"},
        {"REGEDIT4\n", "it doesn't begin with"},
        {"WINE REGISTRY Version 2", "line 1: the file is cut short"},
        {key + "\"v\"=\"x", "line 6: the file is cut short"},
        {key + "\"v\"=hex:00,\\\n", "the file is cut short"},
        {key + std::string("\"v\"=\"a\0b\"\n", 10), "line 6: there is a NUL"},
        {key + "\"v\"=\"a\\q\"\n", "unknown escape '\\q'"},
        {key + "\"v\"=\"a\\x\"\n", "a number is missing"},
        {key + "\"v\"=\"a\\\n", "line 6: "},
        {key + "\"v\"=\"a\n", "no closing"},
        {key + "\"v=1\n", "no closing"},
        {key + "\"v\"\n", "no equals sign"},
        {key + "\"v\"=\"a\"b\n", "more after"},
        {key + "\"v\"=dword:123456789\n", "more after"},
        {key + "\"v\"=hex:1,2,\n", "a number is missing"},
        {key + "\"v\"=hex:gg\n", "a number is missing"},
        {key + "\"v\"=hex(7:00\n", "no end"},
        {key + "\"v\"=str(2):x\n", "no quote"},
        {key + "\"v\"=word:1\n", "unknown kind of data"},
        {HEAD + "[a\n", "no closing ']'"},
        {HEAD + "@=\"x\"\n", "a value stands before the first key"},
        {key + "#link\n\"SymbolicLinkValue\"=hex(6):00\n", "leads nowhere"},
        {key + "#link\n\"SymbolicLinkValue\"=str(1):\"\\\\Registry\\\\Machine\\\\a\"\n", "leads nowhere"},
        {key + "\"v\"=\"" + std::string(65 << 20, 'x') + "\"\n", "is too large"},
    };
    for (const auto& [text, says] : cases) {
        SCOPED_TRACE(text.substr(0, 120));
        dir.write(SYSTEM, text);
        const TreeSnapshot before = dir.snapshot("prefix");
        const std::string failure =
            failureOf([] { ZqRegistry::setVal("HKLM/a", "w", ZqRegistry::RegSz, ""); });
        EXPECT_THAT(failure, HasSubstr(says));
        EXPECT_TRUE(failure.find(dir.path(SYSTEM)) != std::string::npos || failure.ends_with("nowhere"))
            << failure;
        TreeSnapshot after = dir.snapshot("prefix");
        after.erase("tavrin-registry.lock");
        EXPECT_TRUE(after == before || before.contains("tavrin-registry.lock"));
        EXPECT_EQ(dir.read(SYSTEM).size(), text.size());
    }
}

TEST_F(RegistryTest, noEditIsLost) {
    constexpr int N_THREADS = 4, N_EDITS = 15;
    std::vector<std::thread> threads;
    for (int t = 0; t < N_THREADS; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < N_EDITS; ++i)
                ZqRegistry::setVal("HKLM/Lab", SxString(t * N_EDITS + i), ZqRegistry::RegDword, i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < N_THREADS * N_EDITS; ++i)
        EXPECT_EQ(ZqRegistry::getVal("HKLM/Lab", i), SxString(i % N_EDITS));
}

TEST_F(RegistryTest, aServerThatCantBeReachedIsSaidSo) {
    dir.write(SYSTEM, HEAD);
    struct stat info {};
    ASSERT_EQ(::stat(dir.path("prefix").c_str(), &info), 0);
    // Where Wine puts it, and where Debian's Wine does.
    dir.write("prefix/wineserver", "wine-tavrin-test\n");
    const std::string server =
        SxString::sprintf("/server-%jx-%jx", uintmax_t{info.st_dev}, uintmax_t{info.st_ino}).str();
    const std::string path = std::getenv("PATH");
    ::setenv("PATH", dir.path().c_str(), 1);
    for (const std::string& base :
         {"/tmp/.wine-" + std::to_string(::geteuid()), std::string("/tmp/wine-tavrin-test")}) {
        const bool baseIsNew = std::filesystem::create_directory(base);
        std::filesystem::create_directory(base + server);
        SxOs& os = SxOs::machine();
        const std::string lockFile = base + server + "/lock";
        const int fd = os.open(lockFile, SxOs::Write | SxOs::Create, 0600);
        EXPECT_FALSE(ZqWine::isServing(dir.path("prefix"))) << "nobody holds the lock";
        ASSERT_EQ(os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive), 0) << lockFile;

        VirtualClock clock;
        EXPECT_THAT(failureOf([] { ZqRegistry::setVal("HKLM/a", "v", ZqRegistry::RegSz, "x"); }),
                    AllOf(HasSubstr("Wine server that can't be reached"), HasSubstr("no 'wine'")));
        EXPECT_GE(clock.elapsedMs(), 10'000);
        EXPECT_EQ(dir.read(SYSTEM), HEAD);
        EXPECT_FALSE(ZqRegistry::isVal("HKLM/a", "v")) << "reading goes on from the file";
        os.close(fd);
        std::filesystem::remove_all(baseIsNew ? base : base + server);
    }
    ::setenv("PATH", path.c_str(), 1);
    ZqRegistry::setVal("HKLM/a", "v", ZqRegistry::RegSz, "x");
    EXPECT_TRUE(ZqRegistry::isVal("HKLM/a", "v"));
}

namespace {

/// The environment of a Wine of this test's own, whose server ends with the test.
class WineTest : public RegistryTest {
public:
    WineTest() {
        std::filesystem::create_directory(dir.path("tmp"));
        set("HOME", dir.path());
        set("TMPDIR", dir.path("tmp"));
        set("WINEPREFIX", dir.path("prefix"));
        set("WINEDEBUG", "-all");
        set("WINEDLLOVERRIDES", "mscoree,mshtml=");
    }
    ~WineTest() override {
        if (ZqWine::isInstalled()) endServer();
        for (const auto& [name, value] : before)
            value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
    }

protected:
    void set(const std::string& name, const std::string& value) {
        const char* old = std::getenv(name.c_str());
        before.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    std::string query(const std::string& arguments) const {
        SxProcess("bash",
                  {"-c", SxString("wine reg query " + arguments + " >'" + dir.path("out") + "' 2>/dev/null")})
            .run();
        return dir.read("out");
    }
    void endServer() const {
        SxProcess("wineserver", {"-k"}, SxProcess::Silent).run();
        ASSERT_TRUE(SxWait::pass(20'000, [&] { return !ZqWine::isServing(dir.path("prefix")); }));
    }

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> before;
};

} // namespace

TEST_F(WineTest, wineReadsWhatWeWriteAndTheOtherWayRound) {
    if (!ZqWine::isInstalled()) GTEST_SKIP() << "wine isn't installed";
    const SxList<Item> list = {item("HKLM/Software/Lab [1]/Ü", "a\\b\"c", ZqRegistry::RegSz, "C:\\ü\"7\n"),
                               item("HKLM/Software/Lab [1]/Ü", "", ZqRegistry::RegDword, "305419896"),
                               item("HKLM/Software/Lab [1]/Ü", "m", ZqRegistry::RegMultiSz, "one\ntwo"),
                               item("HKLM/Software/Lab [1]/Ü", "b", ZqRegistry::RegBinary, "00ff"),
                               item("HKCU/Software/Lab", "q", ZqRegistry::RegQword, "4294967297")};
    const auto expectAll = [&] {
        for (const Item& entry : list)
            EXPECT_EQ(ZqRegistry::getVal(entry.key, entry.value), entry.data) << entry.value;
    };
    // Into files that Wine has never seen; it then makes the prefix around them.
    ZqRegistry::createRegEntriesAsAdmin(list, "E:");
    EXPECT_THAT(query("'HKLM\\Software\\Lab [1]' /s"),
                AllOf(HasSubstr("REG_DWORD    0x12345678"), HasSubstr("REG_MULTI_SZ    one\\0two"),
                      HasSubstr("a\\b\"c    REG_SZ    C:\\"), HasSubstr("REG_BINARY    00FF")));
    EXPECT_THAT(query("'HKCU\\Software\\Lab'"), HasSubstr("q    REG_QWORD"));

    // While the server runs, through it.
    ASSERT_TRUE(ZqWine::isServing(dir.path("prefix")));
    expectAll();
    ZqRegistry::removeRegEntriesAsAdmin(list);
    EXPECT_FALSE(ZqRegistry::contains("HKLM/Software/Lab [1]", "Ü"));
    EXPECT_TRUE(ZqRegistry::contains("HKLM/Software", "Lab [1]"));
    ZqRegistry::createRegEntriesAsAdmin(list, "E:");
    expectAll();

    // And undone through it, with the keys that were made.
    SxList<ZqRegistry::State> former;
    ZqRegistry::createNoted(
        {item("HKCU/Software/Lab", "q", ZqRegistry::RegSz, "ours"), item("HKCU/Software/Lab/Made/Deep", "v")},
        "E:", {}, [&](const auto& states, const auto&) { former = states; });
    EXPECT_EQ(former(1).nMade, 2);
    EXPECT_THAT(query("'HKCU\\Software\\Lab' /s"), AllOf(HasSubstr("ours"), HasSubstr("Deep")));
    ZqRegistry::put(former);
    expectAll();
    EXPECT_FALSE(ZqRegistry::contains("HKCU/Software/Lab", "Made"));

    // What the server wrote at its end, and edits of its files.
    endServer();
    expectAll();
    ZqRegistry::setVal("HKLM/Software/Lab [1]", "last", ZqRegistry::RegSz, "x");
    EXPECT_THAT(query("'HKLM\\Software\\Lab [1]' /v last"), HasSubstr("REG_SZ    x"));
}
