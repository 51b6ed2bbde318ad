#include "TempDir.h"
#include "ZqRecordFiles.h"
#include "ZqRecordParser.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const std::vector<ZqColumn> COLUMNS = {{"name", ZqColumn::Text},
                                       {"n", ZqColumn::Whole},
                                       {"speed", ZqColumn::Real},
                                       {"isNew", ZqColumn::Flag},
                                       {"ms", ZqColumn::Whole}};
const std::vector<ZqRecordKey> KEYS = {{"", "name", 0},  {"env", "name", 0},     {"", "n", 1, 0, -1},
                                       {"", "speed", 2}, {"dl", "bps", 2, 1e-6}, {"", "isNew", 3},
                                       {"", "ms", 4},    {"odr", "sec", 4, 1e3}};

/// The fault, or the values of the columns.
std::string readOne(ZqRecordParser& parser, const std::string& text) {
    const std::string padded = text + std::string(ZqRecordParser::PADDING, '}');
    std::vector<ZqCell> cells;
    const SxString fault = parser.read(std::string_view(padded).substr(0, text.size()), &cells);
    if (!fault.isEmpty()) return fault.str();
    std::string values;
    for (size_t i = 0; i < cells.size(); ++i) {
        const ZqCell& cell = cells[i];
        std::string value = "-";
        if (cell.isSet) {
            switch (COLUMNS[i].type) {
            case ZqColumn::Text:
                value = std::string(cell.text);
                break;
            case ZqColumn::Real:
                value = SxString(cell.real).str();
                break;
            default:
                value = std::to_string(cell.whole);
            }
        }
        values += (i > 0 ? " " : "") + value;
    }
    return values;
}

std::string nested(size_t levels) {
    return R"({"x":)" + std::string(levels, '[') + std::string(levels, ']') + "}";
}

} // namespace

TEST(RecordParser, TakesWhatFitsAndTellsWhatDoesNot) {
    const std::string text1024(1024, 'a');
    const struct {
        std::string record, result;
    } cases[] = {
        {R"({"name":"a\u00e9","n":-1,"speed":2,"isNew":true,"other":[{"n":7}]})", "a\u00e9 -1 2 1 -"},
        // Whole numbers beyond what doubles have, and those that are doubles only by their form.
        {R"({"n":9007199254740993,"ms":9223372036854775807})", "- 9007199254740993 - - 9223372036854775807"},
        {R"({"n":12.0,"ms":1e3})", "- 12 - - 1000"},
        {R"({"dl":{"bps":12500000},"odr":{"sec":0.2505}})", "- - 12.5 - 251"},
        // null is no value; of two values the larger one counts.
        {R"({"name":null,"n":null,"dl":null,"speed":null,"isNew":null})", "- - - - -"},
        {R"({"name":"b","env":{"name":"a"},"odr":{"sec":7},"ms":8})", "b - - - 7000"},
        {R"({"name":")" + text1024 + "\"}", text1024 + " - - - -"},
        {R"({"name":")" + text1024 + "a\"}", "'name' has more than 1024 bytes"},
        {R"({"name":7})", "'name' isn't a text"},
        {R"({"name":"a\u0000b"})", "'name' holds a NUL character"},
        {R"({"n":"7"})", "'n' isn't a number"},
        {R"({"n":true})", "'n' isn't a number"},
        {R"({"n":1.5})", "'n' isn't a whole number"},
        {R"({"n":-2})", "'n' is negative"},
        {R"({"n":9223372036854775808})", "'n' is beyond 64 bits"},
        {R"({"n":1e300})", "'n' isn't exact"},
        {R"({"odr":{"sec":1e300}})", "'odr.sec' is beyond 64 bits"},
        {R"({"odr":{"sec":-0.1}})", "'odr.sec' is negative"},
        {R"({"odr":[1]})", "'odr' isn't an object"},
        {R"({"speed":"fast"})", "'speed' isn't a number"},
        {R"({"speed":-0.5})", "'speed' is negative"},
        {R"({"isNew":1})", "'isNew' isn't true or false"},
        {R"({"n":1,"n":1})", "'n' is stated twice"},
        {R"({"n":null,"n":1})", "'n' is stated twice"},
        {R"([{"n":1}])", "it isn't an object"},
        {nested(31), "- - - - -"},
        {nested(32), "it has more than 32 levels"},
    };
    ZqRecordParser parser(COLUMNS, KEYS);
    for (const auto& each : cases)
        EXPECT_EQ(readOne(parser, each.record), each.result) << each.record.substr(0, 80);
    for (const char* broken : {"", "{", R"({"n":1)", R"({"n":1}})", R"({"n":1} {"n":2})", R"({"n":NaN})",
                               R"({"speed":1e999})", "{\"name\":\"\xff\"}", R"({"n":01})"})
        EXPECT_THAT(readOne(parser, broken), HasSubstr("it isn't JSON")) << broken;
    EXPECT_EQ(readOne(parser, "[" + std::string(ZqRecordParser::MAX_RECORD, '[')), "it is larger than 1 MiB");
    EXPECT_EQ(readOne(parser, nested(500'000)), "it has more than 32 levels");
    // What came before leaves nothing.
    EXPECT_EQ(readOne(parser, R"({"n":3})"), "- 3 - - -");
}

namespace {

/// All records, as "file:line:text", and what is wrong with files.
std::vector<std::string> readAll(const std::vector<SxString>& paths) {
    ZqRecordFiles files(paths);
    ZqRecordBatch batch;
    std::vector<std::string> found;
    const auto add = [&](int64 line, std::string_view text) {
        found.push_back(std::to_string(batch.getFile()) + ":" + std::to_string(line) + ":" +
                        std::string(text));
    };
    while (files.next(&batch)) {
        if (!batch.getFault().text.isEmpty()) add(batch.getFault().line, batch.getFault().text);
        if (batch.isWholeFile() && !batch.looksLikeLines()) {
            add(0, batch.whole().text);
            continue;
        }
        ZqRecordBatch::Record record;
        while (batch.nextLine(&record))
            add(record.line, record.text);
    }
    return found;
}

} // namespace

TEST(RecordFiles, AreRecordsOrHaveOneInEachLine) {
    const TempDir dir;
    const std::string missing = dir.path("missing.json");
    const std::vector<SxString> paths = {
        SxString(dir.write("one.json", "{\n  \"a\": 1\n}\n")),
        SxString(dir.write("lines.json", "\xEF\xBB\xBF{\"a\":1}\r\n\r\n  \n{\"a\":2}")),
        SxString(dir.write("cut.json", "{\"a\":\n{\"b\":1}\n")),
        SxString(dir.write("one.jsonl", "\xEF\xBB\xBF{\"a\":1}")),
        SxString(dir.write("empty.ndjson", "")),
        SxString(missing),
        SxString(dir.write("last.json", "\xEF\xBB\xBF{}")),
    };
    const auto found = readAll(paths);
    ASSERT_EQ(found.size(), 8u);
    EXPECT_EQ(found[0], "0:0:{\n  \"a\": 1\n}\n");
    EXPECT_EQ(found[1], "1:1:{\"a\":1}");
    EXPECT_EQ(found[2], "1:4:{\"a\":2}");
    EXPECT_EQ(found[3], "2:1:{\"a\":");
    EXPECT_EQ(found[4], "2:2:{\"b\":1}");
    EXPECT_EQ(found[5], "3:1:{\"a\":1}");
    EXPECT_THAT(found[6], HasSubstr("5:0:it can't be read: "));
    EXPECT_EQ(found[7], "6:0:{}");
}

TEST(RecordFiles, ALineThatIsTooLongCostsNoOther) {
    const TempDir dir;
    constexpr size_t BATCH = ZqRecordFiles::BATCH;
    // The long lines end in the middle of a piece, at its end, and with the file; those between cross pieces.
    std::string text = "{\"a\":1}\n" + std::string(2 * BATCH, 'x') + "\n{\"a\":2}\n";
    int64 nBetween = 0;
    for (; text.size() < 5 * BATCH; ++nBetween)
        text += "{\"a\":\"" + std::string(static_cast<size_t>(nBetween % 977), 'y') + "\"}\n";
    text += std::string(3 * BATCH, 'z');
    const auto found = readAll({SxString(dir.write("long.json", text))});
    ASSERT_EQ(found.size(), static_cast<size_t>(nBetween) + 4);
    EXPECT_EQ(found[0], "0:1:{\"a\":1}");
    EXPECT_EQ(found[1], "0:2:it is larger than a record can be");
    EXPECT_EQ(found[2], "0:3:{\"a\":2}");
    for (int64 i = 0; i < nBetween; ++i) {
        ASSERT_EQ(found[static_cast<size_t>(i) + 3], "0:" + std::to_string(i + 4) + ":{\"a\":\"" +
                                                         std::string(static_cast<size_t>(i % 977), 'y') +
                                                         "\"}");
    }
    EXPECT_EQ(found.back(), "0:" + std::to_string(nBetween + 4) + ":it is larger than a record can be");
}
