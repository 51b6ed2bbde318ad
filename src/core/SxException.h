#pragma once

#include "SxString.h"

#include <exception>
#include <memory>

/// The one failure type. A failure is a chain: each level adds what it was doing, its cause is the level
/// below. Kinds of failure have no registry: a level may carry a tag ("FileWriteError", STOPPED), which is
/// all that anybody asks for. A value type; copies share the causes, which never change, so copies may cross
/// threads.
class SxException : public std::exception {
public:
    /// What toString() shows of each level.
    enum Show : int { ShowMessage = 1, ShowPlace = 2 };

    /// The tag of a failure that is a stop which was asked for.
    static constexpr const char* STOPPED = "Stopped";

    SxException() = default;
    /// The lowest level. `file` is the source unit that raises, such as "src/core/SxFileIO".
    SxException(const SxString& message, const SxString& file, int line);
    /// A further level above `inner`.
    SxException(const SxException& inner, const SxString& message, const SxString& file, int line);
    /// A level with the tag of its kind, such as "FileWriteError".
    SxException(const SxString& tag, const SxString& message, const SxString& file, int line);

    /// The same failure with a tag of its kind on the outermost level.
    SxException tagged(const SxString& kind) const;

    const SxString& getMessage() const noexcept { return message; }
    const SxString& getFile() const noexcept { return file; }
    const SxString& getTag() const noexcept { return tag; }
    int getLine() const noexcept { return line; }
    /// Whether a level of the chain has that tag.
    bool hasTag(const SxString& wanted) const;
    /// The level below, or null.
    const SxException* getCause() const noexcept { return cause.get(); }

    /// The chain, outermost level first, joined by `separator`; so the client shows one level a line. `level`
    /// is a sum of Show values; 3 shows the message and the place of each level.
    SxString toString(int level = ShowMessage | ShowPlace, const SxString& separator = "\n") const;
    /// The messages of the chain, joined by ": ".
    const char* what() const noexcept override { return whatText.ascii(); }

private:
    SxString message, file, tag, whatText;
    int line = 0;
    std::shared_ptr<const SxException> cause;
};
