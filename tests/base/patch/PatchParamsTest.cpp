#include "BaseTest.h"
#include "ZqPatchParams.h"
#include "ZqSysEnv.h"

#include <limits>

namespace {

const std::string RECORD = R"({
    "version": 2,
    "fromGUID": "g\u00e4\"",
    "toGUID": "h",
    "sizeInfo": 9223372036854775807,
    "sizeMap": 2,
    "sizeData": 3,
    "hashInfo": "a",
    "hashMap": "b",
    "hashData": "c",
    "compression": "LZ4HC",
    "fromMnt": "m",
    "toMnt": "n"
}
)";

std::string edited(const std::string& from, const std::string& to) {
    EXPECT_NE(RECORD.find(from), std::string::npos) << from;
    return SxString(RECORD).substitute(from, to, 1).str();
}

} // namespace

TEST(PatchParams, AreWrittenAsTheyAreRead) {
    const TempDir dir;
    const std::string file = dir.write("patch.json", RECORD);
    ZqPatchParams params(dir.prefix());
    params.write(dir.path("deep/er/"));
    EXPECT_EQ(dir.read("deep/er/patch.json"), SxString(RECORD).substitute("\\u00e4", "\u00e4", 1).str());
    EXPECT_TRUE(params.compression == ZqPatchCompression::LZ4HC && params.fromMnt == "m" &&
                params.sizeInfo == uint64{std::numeric_limits<int64>::max()});

    // What is absent has its default, also in an object that had something else, and isn't written.
    const ZqPatchParams defaults;
    dir.write("patch.json", edited(R"("hashData": "c",
    "compression": "LZ4HC",
    "fromMnt": "m",
    "toMnt": "n")",
                                   R"("hashData": "c", "other": [1])"));
    params.read();
    EXPECT_TRUE(params.compression == ZqPatchCompression::ZSTD && params.fromMnt.isEmpty() &&
                params.toMnt.isEmpty() && params.hashData == "c");
    ZqPatchParams bare;
    bare.write(dir.prefix());
    EXPECT_THAT(dir.read("patch.json"), AllOf(HasSubstr("\"compression\": \"ZSTD\"\n}"),
                                              HasSubstr("XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX")));
    bare.read(dir.prefix());
    EXPECT_EQ(bare, defaults);

    bare.sizeData = ~uint64{0};
    EXPECT_THAT(failureOf([&] { bare.write(dir.prefix()); }),
                AllOf(StartsWith("Failed to write file " + file + ": "), HasSubstr("18446744073709551615")));
    EXPECT_EQ(failureOf([] { ZqPatchCompression::toString(static_cast<ZqPatchCompression::Type>(7)); }),
              "Invalid compression mode 7");
}

TEST(PatchParams, BadOnesAreRefused) {
    const TempDir dir;
    const std::string file = dir.path("patch.json");
    const std::string wrapped = "Reading of file " + file + " failed: ";
    ZqPatchParams params;
    const auto read = [&] { return failureOf([&] { params.read(dir.prefix()); }); };
    EXPECT_EQ(read(), "File " + file + " not found.");
    dir.write("patch.json", RECORD);
    ZqSysEnv::setSchemaPath(dir.prefix());
    EXPECT_EQ(read(), "Required schema file " + dir.path("zqpatch-schema.json") + " not found");
    ZqSysEnv::setSchemaPath("");

    struct Case {
        std::string from, to, reason;
    };
    std::vector<Case> cases = {
        {"\"version\": 2", "\"version\": 1", "File version of '" + file + "' not supported."},
        {"\"version\": 2", "\"version\": 3", "File version of '" + file + "' not supported."},
        {"LZ4HC", "zstd", "Invalid patch compression type zstd"},
        {"\"LZ4HC\"", "4", "compression"},
        {"\"sizeMap\": 2", "\"sizeMap\": -1", "sizeMap"},
        {"5807", "5808", "sizeInfo"},
        {"\"m\"", "null", "fromMnt"},
        {"}\n", "", "No valid JSON"},
    };
    for (const std::string key : {"version", "fromGUID", "toGUID", "sizeInfo", "sizeMap", "sizeData",
                                  "hashInfo", "hashMap", "hashData"})
        cases.push_back({"\"" + key + "\":", "\"other\":", key + "' is missing"});
    for (const Case& c : cases) {
        dir.write("patch.json", edited(c.from, c.to));
        EXPECT_THAT(read(), AllOf(StartsWith(wrapped), HasSubstr(c.reason))) << c.to;
    }
    EXPECT_EQ(params, ZqPatchParams()) << "changed by a record that was refused";
}
