#pragma once

#include "SxArray.h"
#include "SxMutex.h"
#include "SxString.h"

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class ZqServerFaults;

/// The files of a folder as a web server gives them, without their way to the client: which file a path
/// means, what of it answers a request, and what of that is wrong on purpose. Counts what was given. What
/// lies outside of the folder isn't served, be it by ".." or by a link. Safe from any thread.
class ZqServedFiles {
public:
    struct Request {
        std::string path, range, ifRange; ///< the fields are empty where the request has none
    };
    /// A file, open as long as it is sent.
    class File;
    struct Answer {
        int status = 200;
        std::vector<std::pair<std::string, std::string>> fields;
        std::string type;           ///< of the content
        std::string text;           ///< the content, where there is no file
        std::shared_ptr<File> file; ///< that the content is of; may be null
        int64 nBytes = 0;           ///< of the content
    };
    struct Counts {
        uint64 requests = 0, bytes = 0;
    };

    /// Raises where `folder` isn't one. `faults_` must outlive this.
    ZqServedFiles(const SxString& folder, const ZqServerFaults& faults_);

    /// What a GET or HEAD gets; a file is counted as asked for.
    Answer answer(const Request& request);
    /// Whether the content goes no further than `at` for now.
    bool isHeldUp(const File& file, int64 at) const;
    /// The next bytes of the content, at most `n`, from byte `at` of it on; counted as given, which whoever
    /// gets them can rely on. None where they can't be read.
    SxArray<char> read(const File& file, int64 at, int64 n);

    /// Counts a request, for whatever it is; gives how many there have been.
    uint64 countRequest() { return countRequest(""); }
    /// Counts of one file, or with an empty name of all; `name` is relative to the folder.
    Counts getCounts(const std::string& name) const;

private:
    std::shared_ptr<File> open(const std::string& path) const;
    bool isChanged(const File& file) const;
    int chooseRange(const Request& request, const std::string& tag, const std::string& date, File* file,
                    Answer* answer) const;
    uint64 countRequest(const std::string& name);

    const ZqServerFaults& faults;
    std::string root; ///< canonical, with a trailing slash
    mutable SxMutex mutex;
    std::map<std::string, Counts> counts SX_GUARDED_BY(mutex);
};
