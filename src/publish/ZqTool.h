#pragma once

#include "SxList.h"
#include "SxString.h"

#include <functional>

class ZqTaskMon;

/// An external program that makes or changes a file system, such as `mkfs.erofs`. One thread.
class ZqTool {
public:
    /// Looks for `name` in the folders of $PATH, then in those where system tools lie. Raises naming it and
    /// its Debian package where it isn't there.
    ZqTool(const SxString& name, const SxString& package);

    /// Runs it with `arguments`, and `variables` ("NAME=value") in its environment beside a fixed language.
    /// What it says on standard error goes to the file `log`, and a failure tells the end of that. `look` is
    /// called now and then. Ends it and raises with the tag SxException::STOPPED where `job` is asked to
    /// stop.
    void run(const SxList<SxString>& arguments, const SxList<SxString>& variables, const SxString& log,
             const ZqTaskMon& job, const std::function<void()>& look) const;

private:
    const SxString name;
    SxString path;
};
