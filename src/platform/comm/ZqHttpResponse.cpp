#include "ZqHttpResponse.h"

#include "SxException.h"
#include "SxJSONParser.h"

namespace {
constexpr const char* UNIT = "src/platform/comm/ZqHttpResponse";
}

SxParserKit::SxSymbol ZqHttpResponse::toJSON() const {
    SxJSONParser parser;
    try {
        parser.readString(body, "answer");
    } catch (const SxException&) {
        // The reader's words show a piece of the answer, and a token may stand there.
        throw SxException("The service's answer isn't JSON", UNIT, __LINE__);
    }
    return parser.getRootSymbol();
}
