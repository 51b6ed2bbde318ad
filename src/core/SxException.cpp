#include "SxException.h"

SxException::SxException(const SxString& message_, const SxString& file_, int line_)
    : message(message_),
      file(file_),
      whatText(message_),
      line(line_) {
}

SxException::SxException(const SxException& inner, const SxString& message_, const SxString& file_, int line_)
    : message(message_),
      file(file_),
      whatText(message_ + ": " + inner.whatText),
      line(line_),
      // NOLINTNEXTLINE(bugprone-throw-keyword-missing): the cause is kept, not thrown
      cause(std::make_shared<SxException>(inner)) {
}

SxException::SxException(const SxString& tag_, const SxString& message_, const SxString& file_, int line_)
    : message(message_),
      file(file_),
      tag(tag_),
      whatText(message_),
      line(line_) {
}

SxException SxException::tagged(const SxString& kind) const {
    SxException result = *this;
    result.tag = kind;
    return result;
}

bool SxException::hasTag(const SxString& wanted) const {
    for (const SxException* e = this; e; e = e->cause.get()) {
        if (e->tag == wanted) return true;
    }
    return false;
}

SxString SxException::toString(int level, const SxString& separator) const {
    SxString result;
    for (const SxException* e = this; e; e = e->cause.get()) {
        if (e != this) result += separator;
        if (level & ShowMessage) result += e->message;
        if (level & ShowPlace) result += " (" + e->file + ":" + e->line + ")";
    }
    return result;
}
