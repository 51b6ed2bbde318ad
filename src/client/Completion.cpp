#include "Completion.h"

#include "App.h"
#include "Verbs.h"

const char* const CompletionScript::BASH = R"(_tavrin() {
    local candidate
    COMPREPLY=()
    while IFS= read -r candidate; do
        COMPREPLY+=("$candidate")
    done < <("$1" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o bashdefault -o default -F _tavrin tavrin
)";

const char* const CompletionScript::ZSH = R"(#compdef tavrin
_tavrin() {
    local -a candidates
    candidates=("${(@f)$("${words[1]}" __complete "${(@)words[2,CURRENT]}" 2>/dev/null)}")
    candidates=("${(@)candidates:#}")
    if (( $#candidates )); then
        compadd -- "${candidates[@]}"
    else
        _files
    fi
}
if [[ "$funcstack[1]" == _tavrin ]]; then
    _tavrin "$@"
else
    compdef _tavrin tavrin
fi
)";

const char* const CompletionScript::FISH = R"(function __tavrin_complete
    set -l words (commandline -opc)
    set -l program $words[1]
    set -e words[1]
    set -l current (commandline -ct)
    $program __complete $words "$current" 2>/dev/null
end
complete -c tavrin -f -n 'count (__tavrin_complete) >/dev/null' -a '(__tavrin_complete)'
)";

void registerCompletionVerbs(App* app) {
    Family completion = app->family("completion", "Scripts that complete command lines in a shell");
    const auto add = [&](const char* shell, const char* script, const char* example) {
        completion.verb(shell, "Print the script for this shell", example).action([script](Output& out) {
            out.raw(script);
            return ExitSuccess;
        });
    };
    add("bash", CompletionScript::BASH, "tavrin completion bash > /etc/bash_completion.d/tavrin");
    add("zsh", CompletionScript::ZSH, "tavrin completion zsh > /usr/local/share/zsh/site-functions/_tavrin");
    add("fish", CompletionScript::FISH, "tavrin completion fish > ~/.config/fish/completions/tavrin.fish");
}
