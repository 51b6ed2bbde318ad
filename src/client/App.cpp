#include "App.h"
#include "Amount.h"
#include "HeaderLines.h"

#include <tavrin/ZqLog.h>
#include <tavrin/ZqSysEnv.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <optional>

namespace {
constexpr const char* UNIT = "src/client/App";
constexpr const char* COMMON_GROUP = "Common options";

/// A descriptor that the caller left closed would be given to the next file that is opened, and what is said
/// would go into that file.
void fillStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0) continue;
        if (::open("/dev/null", O_RDWR) < 0) throw SxException("Cannot open /dev/null", UNIT, __LINE__);
    }
}

/// Lets a write to a closed pipe, or beyond the limit of a file's size, fail instead of ending the process in
/// the middle of a job. A handler, unlike an ignored signal, is not handed on to child processes.
void catchFailedWrites() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGPIPE, &action, nullptr);
    ::sigaction(SIGXFSZ, &action, nullptr);
}

void addCommonOptions(CLI::App* command, OutputMode* mode) {
    command->set_help_flag("-h,--help", "Show this help and exit")->group(COMMON_GROUP);
    command->add_flag("--json", mode->json, "Give the result as JSON")->group(COMMON_GROUP);
    command->add_flag("--quiet", mode->quiet, "Say nothing but errors")->group(COMMON_GROUP);
    command->add_flag("--verbose", mode->verbose, "Show the log and where errors come from")
        ->group(COMMON_GROUP);
}

/// Says of arguments that are several how many may be given, unless their name does, as "TRACE... INDEX".
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option_usage(const CLI::Option* option) const override {
        return saysHowMany(option) ? make_option_name(option, true) : Formatter::make_option_usage(option);
    }
    std::string make_option_opts(const CLI::Option* option) const override {
        return saysHowMany(option) ? " " + get_label("REQUIRED") : Formatter::make_option_opts(option);
    }

private:
    bool saysHowMany(const CLI::Option* option) const {
        return option->get_positional() && make_option_name(option, true).find("...") != std::string::npos;
    }
};

template<class T>
T parseNumber(const std::string& name, const std::string& text, T least, T most) {
    T value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || stop != end || error != std::errc() || value < least || value > most) {
        throw CLI::ValidationError(name + " needs a whole number from " + std::to_string(least) + " to " +
                                   std::to_string(most) + ", not '" + text + "'");
    }
    return value;
}

bool isNegativeNumber(const std::string& word) {
    return word.size() > 1 && word[0] == '-' &&
           std::all_of(word.begin() + 1, word.end(), [](char c) { return c >= '0' && c <= '9'; });
}

SxString requireWord(const char* name, const std::string& text, const SxList<SxString>& words,
                     const std::string& all) {
    if (!words.contains(SxString(text))) {
        throw CLI::ValidationError(std::string(name) + " is one of " + all + ", not '" + text + "'");
    }
    return SxString(text);
}

/// The command that the parser has come to.
const CLI::App* deepest(const CLI::App* command) {
    for (;;) {
        const auto chosen = command->get_subcommands();
        if (chosen.empty()) return command;
        command = chosen.back();
    }
}

/// The verb's name with its family's, without the program's.
std::string verbName(const CLI::App* command) {
    std::string name;
    for (; command->get_parent(); command = command->get_parent())
        name.insert(0, command->get_name() + (name.empty() ? "" : " "));
    return name;
}

bool hasSubcommands(const CLI::App* command) {
    return !command->get_subcommands([](const CLI::App*) { return true; }).empty();
}

std::string describeExtra(const CLI::App* command, const std::vector<std::string>& extras) {
    const std::string word = extras.empty() ? "" : extras.front();
    if (word.starts_with("-")) return "unknown option '" + word + "'";
    if (!hasSubcommands(command)) return "unexpected argument '" + word + "'";
    return (command->get_parent() ? "unknown verb '" : "unknown command '") + word + "'";
}

/// What is wrong with the command line, in one sentence.
std::string describe(const CLI::App& root, const CLI::ParseError& e) {
    const CLI::App* command = deepest(&root);
    std::string text = e.what();
    if (dynamic_cast<const CLI::ExtrasError*>(&e)) {
        text = describeExtra(command, root.remaining(true));
    } else if (dynamic_cast<const CLI::ArgumentMismatch*>(&e)) {
        // The parser's own sentence begins with the option's name; repeated options are allowed.
        text = text.substr(0, text.find_first_of(": ")) + " needs a value";
    }
    const std::string name = verbName(command);
    return name.empty() ? text : name + ": " + text;
}

/// Whether `word` is an option of `command` that takes the next word as its value.
bool takesNextWord(const CLI::App* command, const std::string& word) {
    const CLI::Option* option = command->get_option_no_throw(word);
    return option && option->nonpositional() && option->get_items_expected_min() > 0;
}

const CLI::App* findSubcommand(const CLI::App* command, const std::string& name) {
    const auto found = command->get_subcommands([&](const CLI::App* sub) { return sub->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

/// The words of a command line. The parser would take a negative number for an option. So where one stands as
/// an argument, all arguments are put after a "--".
std::vector<std::string> parserWords(const CLI::App* command, int argc, char** argv) {
    std::vector<std::string> words, arguments;
    bool needsMark = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const CLI::App* sub = arguments.empty() ? findSubcommand(command, word) : nullptr;
        if (word == "--") {
            arguments.insert(arguments.end(), argv + i + 1, argv + argc);
            needsMark = true;
            break;
        }
        if (sub) {
            command = sub;
            words.push_back(word);
        } else if (word.starts_with("-") && !isNegativeNumber(word)) {
            words.push_back(word);
            if (takesNextWord(command, word) && i + 1 < argc) words.emplace_back(argv[++i]);
        } else {
            arguments.push_back(word);
            needsMark = needsMark || isNegativeNumber(word);
        }
    }
    if (!needsMark) return {argv + 1, argv + argc};
    words.emplace_back("--");
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

CLI::Option* addArgument(CLI::App* command, const char* name, SxString* value, const char* help) {
    const auto take = [value, name](const std::string& text) {
        if (text.empty()) throw CLI::ValidationError(std::string(name) + " is empty");
        *value = text;
    };
    return command->add_option_function<std::string>(name, take, help)->type_name("");
}

void addTexts(CLI::App* command, const char* name,
              const std::function<void(const std::vector<std::string>&)>& take, const char* valueName,
              const char* help) {
    command->add_option_function<std::vector<std::string>>(name, take, help)
        ->type_name(valueName)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

/// An option whose value `parse` reads; `takes` says what it takes.
template<class T, class Value>
CLI::Option* addAmount(CLI::App* command, const char* name, Value* value, const char* help,
                       const char* valueName, const SxString& takes,
                       const std::function<std::optional<T>(const std::string& text)>& parse) {
    const auto take = [=](const std::string& text) {
        const std::optional<T> amount = parse(text);
        if (!amount) {
            throw CLI::ValidationError(std::string(name) + " takes " + takes.str() + ", not '" +
                                       SxString(text).makeVisible().str() + "'");
        }
        *value = *amount;
    };
    return command->add_option_function<std::string>(name, take, help)
        ->type_name(valueName)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

CLI::App* addVerb(CLI::App* parent, const char* group, const char* name, const char* help,
                  const char* example) {
    CLI::App* verb = parent->add_subcommand(name, help);
    verb->group(group);
    verb->footer(std::string("Example:\n  ") + example);
    return verb;
}
} // namespace

Verb& Verb::argument(const char* name, SxString* value, const char* help) {
    addArgument(command, name, value, help)->required();
    return *this;
}

Verb& Verb::optionalArgument(const char* name, SxString* value, const char* help) {
    addArgument(command, name, value, help);
    return *this;
}

Verb& Verb::integerArgument(const char* name, int64* value, int64 least, int64 most, const char* help) {
    const auto take = [=](const std::string& text) { *value = parseNumber(name, text, least, most); };
    command->add_option_function<std::string>(name, take, help)->type_name("")->required();
    return *this;
}

Verb& Verb::arguments(const char* name, SxList<SxString>* values, const char* help) {
    const auto take = [values, name](const std::vector<std::string>& all) {
        for (const std::string& text : all) {
            if (text.empty()) throw CLI::ValidationError(std::string(name) + " is empty");
            *values << SxString(text);
        }
    };
    command->add_option_function<std::vector<std::string>>(name, take, help)->type_name("")->required();
    return *this;
}

Verb& Verb::integer(const char* name, int64* value, int64 least, int64 most, const char* help) {
    const auto take = [=](const std::string& text) { *value = parseNumber(name, text, least, most); };
    command->add_option_function<std::string>(name, take, help)
        ->type_name("N")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    return *this;
}

Verb& Verb::number(const char* name, uint64* value, uint64 least, const char* help, bool required) {
    const auto take = [value, name, least](const std::string& text) {
        // Sizes and indices are signed 64-bit in the files.
        *value = parseNumber<uint64>(name, text, least, std::numeric_limits<int64>::max());
    };
    command->add_option_function<std::string>(name, take, help)
        ->required(required)
        ->type_name("N")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    return *this;
}

Verb& Verb::rate(const char* name, std::optional<uint64>* value, const char* help) {
    const SxString takes = Amount::RATE_TEXT + SxString(", or 0 for no limit");
    addAmount<uint64>(command, name, value, help, "RATE", takes, [](const std::string& text) {
        return text == "0" ? std::optional<uint64>(0) : Amount::rate(text);
    });
    return *this;
}

Verb& Verb::size(const char* name, uint64* value, const char* help, bool required) {
    addAmount<uint64>(command, name, value, help, "SIZE", Amount::SIZE_TEXT, Amount::size)
        ->required(required);
    return *this;
}

Verb& Verb::speed(const char* name, double* value, const char* help) {
    addAmount<double>(command, name, value, help, "SPEED", Amount::SPEED_TEXT, Amount::speed);
    return *this;
}

Verb& Verb::text(const char* name, SxString* value, const char* valueName, const char* help, bool required) {
    const auto take = [value, name](const std::string& text) {
        if (text.empty()) throw CLI::ValidationError(std::string(name) + " is empty");
        *value = text;
    };
    command->add_option_function<std::string>(name, take, help)
        ->required(required)
        ->type_name(valueName)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    return *this;
}

Verb& Verb::texts(const char* name, SxList<SxString>* values, const char* valueName, const char* help) {
    const auto take = [values](const std::vector<std::string>& all) {
        for (const std::string& text : all)
            *values << SxString(text);
    };
    addTexts(command, name, take, valueName, help);
    return *this;
}

Verb& Verb::headers(const char* name, SxList<SxString>* values, const char* help) {
    const auto take = [values, name](const std::vector<std::string>& all) {
        for (const std::string& text : all) {
            try {
                HeaderLines::take(text, values);
            } catch (const SxException& e) {
                throw CLI::ValidationError(std::string(name) + " " + e.what());
            }
        }
    };
    addTexts(command, name, take, "\"NAME: VALUE\"|@FILE", help);
    return *this;
}

Verb& Verb::choice(const char* name, SxString* value, const SxList<SxString>& words, const char* help) {
    const std::string all = SxString::join(words, "|").str();
    const auto take = [value, name, words, all](const std::string& text) {
        *value = requireWord(name, text, words, all);
    };
    command->add_option_function<std::string>(name, take, help)
        ->type_name(all)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    return *this;
}

Verb& Verb::choices(const char* name, SxList<SxString>* values, const SxList<SxString>& words,
                    const char* help) {
    const std::string all = SxString::join(words, "|").str();
    const auto take = [values, name, words, all](const std::vector<std::string>& given) {
        for (const std::string& text : given)
            *values << requireWord(name, text, words, all);
    };
    command->add_option_function<std::vector<std::string>>(name, take, help)
        ->type_name(all)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    return *this;
}

Verb& Verb::flag(const char* name, bool* value, const char* help) {
    command->add_flag(name, *value, help);
    return *this;
}

void Verb::action(Action action) {
    addCommonOptions(command, mode);
    command->callback([target = chosen, action = std::move(action)] { *target = action; });
}

Verb Family::verb(const char* name, const char* help, const char* example) {
    return Verb(addVerb(command, "Verbs", name, help, example), mode, chosen);
}

App::App() : root(std::make_unique<CLI::App>("Play a game while its disk image still downloads", "tavrin")) {
    // Not more than one: a folder that has the name of a command is an argument where it follows the verb.
    root->require_subcommand(0, 1);
    root->formatter(std::make_shared<HelpFormatter>());
    root->get_formatter()->label("SUBCOMMAND", "COMMAND");
    root->get_formatter()->label("Positionals", "Arguments");
    addCommonOptions(root.get(), &mode);
    root->set_version_flag("--version", "tavrin " + ZqSysEnv::getRTEVersion().str(),
                           "Show the version and exit")
        ->group(COMMON_GROUP);
    root->footer("Each verb has its own help: tavrin FAMILY VERB --help");
}

App::~App() = default;

Family App::family(const char* name, const char* help) {
    CLI::App* family = root->add_subcommand(name, help);
    family->require_subcommand(0, 1);
    family->group("Commands");
    addCommonOptions(family, &mode);
    return Family(family, &mode, &chosen);
}

Verb App::verb(const char* name, const char* help, const char* example) {
    return Verb(addVerb(root.get(), "Commands", name, help, example), &mode, &chosen);
}

bool App::parse(int argc, char** argv, int* exitCode) {
    *exitCode = ExitUsage;
    try {
        std::vector<std::string> words = parserWords(root.get(), argc, argv);
        std::reverse(words.begin(), words.end());
        root->parse(std::move(words));
    } catch (const CLI::Success& e) {
        const bool version = dynamic_cast<const CLI::CallForVersion*>(&e) != nullptr;
        Output out(mode);
        out.raw(version ? std::string(e.what()) + "\n" : root->help());
        out.flush();
        *exitCode = ExitSuccess;
        return false;
    } catch (const CLI::ParseError& e) {
        Output::failure(SxString(describe(*root, e)));
        return false;
    }
    if (chosen) return true;
    std::fputs(root->help().c_str(), stderr);
    return false;
}

int App::printCandidates(int argc, char** argv) const {
    SxList<SxString> words;
    for (int i = 2; i < argc; ++i)
        words << SxString(argv[i]);
    Output out(mode);
    for (const SxString& candidate : complete(words))
        out.raw((candidate + "\n").str());
    out.flush();
    return ExitSuccess;
}

int App::run(int argc, char** argv) {
    try {
        fillStandardDescriptors();
        catchFailedWrites();
        if (argc > 1 && std::string_view(argv[1]) == "__complete") return printCandidates(argc, argv);
        int exitCode = ExitSuccess;
        if (!parse(argc, argv, &exitCode)) return exitCode;
        if (mode.verbose) ZqLog::setVerbose(true);

        Output out(mode);
        exitCode = chosen(out);
        out.flush();
        return exitCode;
    } catch (const SxException& e) {
        std::fflush(stdout);
        Output::failure(e, mode.verbose);
    } catch (const std::exception& e) {
        std::fflush(stdout);
        Output::failure(SxString(e.what()));
    }
    return ExitFailure;
}

SxList<SxString> App::complete(const SxList<SxString>& words) const {
    const CLI::App* command = root.get();
    std::string current;
    bool valueWanted = false, optionsEnded = false;
    int64 i = 0;
    for (const SxString& word : words) {
        current = word.str();
        if (++i == words.getSize()) break;
        if (valueWanted) {
            valueWanted = false;
        } else if (current == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && current.starts_with("-")) {
            valueWanted = takesNextWord(command, current);
        } else if (const CLI::App* sub = findSubcommand(command, current)) {
            command = sub;
        }
    }

    SxList<SxString> result;
    if (valueWanted || optionsEnded) return result;
    if (current.starts_with("-")) {
        for (const CLI::Option* option : command->get_options()) {
            for (const std::string& name : option->get_lnames())
                if (("--" + name).starts_with(current)) result << SxString("--" + name);
        }
        return result;
    }
    for (const CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; }))
        if (sub->get_name().starts_with(current)) result << SxString(sub->get_name());
    return result;
}
