#pragma once

#include "Output.h"

#include <functional>
#include <memory>
#include <optional>

namespace CLI {
class App;
}

struct NetOptions;

/// Exit codes of the client.
enum ExitCode : int { ExitSuccess = 0, ExitFailure = 1, ExitUsage = 2 };

/// What a verb does, with its exit code. An SxException that leaves it is shown and gives ExitFailure.
using Action = std::function<int(Output& out)>;

/// One verb while it is being described. The targets of arguments and options must live until the action has
/// run; an option that isn't given leaves its target alone.
class Verb {
public:
    /// A required argument, by its place; it can't be empty.
    Verb& argument(const char* name, SxString* value, const char* help);
    /// The same for one that may be left out.
    Verb& optionalArgument(const char* name, SxString* value, const char* help);
    /// A required argument, by its place, that is a whole number of `least` to `most`. It may be negative,
    /// which makes it no option.
    Verb& integerArgument(const char* name, int64* value, int64 least, int64 most, const char* help);
    /// Required arguments, one or more, up to the end; none can be empty.
    Verb& arguments(const char* name, SxList<SxString>* values, const char* help);
    /// An option with a whole number of `least` to `most` as value.
    Verb& integer(const char* name, int64* value, int64 least, int64 most, const char* help);
    /// An option with a whole number of at least `least` as value.
    Verb& number(const char* name, uint64* value, uint64 least, const char* help, bool required = false);
    /// An option with bytes a second as value, as Amount::rate() takes them, or 0 for no limit.
    Verb& rate(const char* name, std::optional<uint64>* value, const char* help);
    /// An option with a number of bytes as value, as Amount::size() takes it.
    Verb& size(const char* name, uint64* value, const char* help, bool required = false);
    /// An option with megabit a second as value, as Amount::speed() takes them.
    Verb& speed(const char* name, double* value, const char* help);
    /// An option with a text as value, which can't be empty; `valueName` stands for it in the help.
    Verb& text(const char* name, SxString* value, const char* valueName, const char* help,
               bool required = false);
    /// An option that may be given several times, each with a text.
    Verb& texts(const char* name, SxList<SxString>* values, const char* valueName, const char* help);
    /// The same with lines of the form "NAME: VALUE", as HTTP has them, or @FILE for the lines of a file.
    Verb& headers(const char* name, SxList<SxString>* values, const char* help);
    /// The options of a verb that downloads; `help` is that of the headers.
    Verb& network(NetOptions* values, const char* help);
    /// An option with one of several words as value.
    Verb& choice(const char* name, SxString* value, const SxList<SxString>& words, const char* help);
    /// The same for an option that may be given several times.
    Verb& choices(const char* name, SxList<SxString>* values, const SxList<SxString>& words,
                  const char* help);
    Verb& flag(const char* name, bool* value, const char* help);
    /// Ends the description.
    void action(Action action);

private:
    friend class Family;
    friend class App;
    Verb(CLI::App* command_, OutputMode* mode_, Action* chosen_)
        : command(command_),
          mode(mode_),
          chosen(chosen_) {}

    CLI::App* command;
    OutputMode* mode;
    Action* chosen;
};

/// A group of verbs, `tavrin FAMILY VERB`.
class Family {
public:
    /// `example` is a whole command line, shown by --help.
    Verb verb(const char* name, const char* help, const char* example);

private:
    friend class App;
    Family(CLI::App* command_, OutputMode* mode_, Action* chosen_)
        : command(command_),
          mode(mode_),
          chosen(chosen_) {}

    CLI::App* command;
    OutputMode* mode;
    Action* chosen;
};

/// The command line: knows all families, finds the verb and runs it.
class App {
public:
    App();
    ~App();
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    Family family(const char* name, const char* help);
    /// A verb without a family, `tavrin VERB`.
    Verb verb(const char* name, const char* help, const char* example);
    /// Parses the arguments of main(), runs the verb and gives the exit code.
    int run(int argc, char** argv);
    /// What can stand in the place of the last of `words` (those after the program's name): families, verbs,
    /// options. Empty where a file name or a value is wanted.
    SxList<SxString> complete(const SxList<SxString>& words) const;

private:
    bool parse(int argc, char** argv, int* exitCode);
    int printCandidates(int argc, char** argv) const;

    std::unique_ptr<CLI::App> root;
    OutputMode mode;
    Action chosen;
};
