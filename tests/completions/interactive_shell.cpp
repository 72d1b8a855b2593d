#include "tests/completions/interactive_shell.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <stdexcept>

namespace {

constexpr const char* kPrompt = "ready> ";
constexpr const char* kEndOfRecord = " end of record";

// Keys, as the shells know them unless they are told otherwise.
constexpr const char* kToBeginOfLine = "\x01";

std::string recordLine(const std::string& line) {
    return line + kToBeginOfLine + "record \r";
}

constexpr const char* kBashStart = R"(
PS1='ready> '
record() { printf 'recorded:'; printf ' [%s]' "$@"; echo ' end of record'; }
unset HISTFILE
HOSTFILE=$HOME/hosts
bind 'set completion-query-items 0'
bind 'set page-completions off'
source "$COMPLETIONS/hxusbvctl.bash"
)";

constexpr const char* kZshStart = R"(
PS1='ready> '
record() { printf 'recorded:'; printf ' [%s]' "$@"; echo ' end of record'; }
fpath=("$COMPLETIONS" $fpath)
autoload -Uz compinit
compinit -D -u
zle -C all-matches complete-word _generic
bindkey '^B' all-matches
zstyle ':completion:all-matches::::' completer _all_matches _complete
zstyle ':completion:all-matches:*' insert yes
)";

constexpr const char* kFishStart = R"(
set -p fish_complete_path $COMPLETIONS
set -g fish_greeting
function fish_prompt; echo -n 'ready> '; end
function record
    printf 'recorded:'
    printf ' [%s]' $argv
    echo ' end of record'
end
)";

// The words between "[" and "]".
Words wordsOf(const std::string& record) {
    Words words;
    for (size_t begin = 0; (begin = record.find(" [", begin)) != std::string::npos;) {
        begin += 2;
        words.push_back(record.substr(begin, record.find(']', begin) - begin));
    }
    return words;
}

// How many words of the line are complete: those that a blank follows.
size_t completeWords(const std::string& line) {
    return static_cast<size_t>(std::count(line.begin(), line.end(), ' '));
}

Words commandLine(const ShellKind& kind, const std::filesystem::path& home) {
    Words words{findProgram(kind.name)};
    for (std::string option : kind.options) {
        if (const size_t at = option.find("$HOME"); at != std::string::npos)
            option.replace(at, 5, home);
        words.push_back(option);
    }
    return words;
}

}  // namespace

const std::vector<ShellKind>& shellKinds() {
    static const std::vector<ShellKind> kinds{
        {.name = "bash",
         .startFile = "bashrc",
         .startText = kBashStart,
         .options = {"--noprofile", "--rcfile", "$HOME/bashrc", "-i"},
         .listKeys = "\t\t",
         .listAtOnce = "bind 'set show-all-if-ambiguous on'",
         .recordCandidates = [](const std::string& line) { return recordLine(line + "\x1b*"); }},
        {.name = "zsh",
         .startFile = ".zshrc",
         .startText = kZshStart,
         .options = {"--no-globalrcs", "-i"},
         .listKeys = "\t",
         .listAtOnce = "unsetopt list_ambiguous",
         .recordCandidates = [](const std::string& line) { return recordLine(line + "\x02"); }},
        {.name = "fish",
         .startFile = "start.fish",
         .startText = kFishStart,
         .options = {"--no-config", "--init-command", "source $HOME/start.fish", "-i"},
         .listKeys = "\t",
         .listAtOnce = "true",
         .recordCandidates = [](const std::string& line) {
             return "record " + line.substr(0, line.rfind(' ') + 1) + "(complete -C '" + line +
                    "' | string replace -r '\\t.*' '')\r";
         }}};
    return kinds;
}

void PrintTo(const ShellKind& kind, std::ostream* out) {
    *out << kind.name;
}

InteractiveShell::InteractiveShell(const ShellKind& shellKind, const std::filesystem::path& home)
    : kind(shellKind) {
    std::ofstream(home / kind.startFile) << kind.startText;
    setenv("HOME", home.c_str(), 1);
    setenv("ZDOTDIR", home.c_str(), 1);
    setenv("COMPLETIONS", COMPLETIONS, 1);
    setenv("TERM", "xterm", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    // Keys are a person's to choose, by files or by the name of an editor.
    setenv("INPUTRC", "/dev/null", 1);
    for (const char* variable : {"EDITOR", "VISUAL", "HISTFILE", "PROMPT_COMMAND",
                                 "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        unsetenv(variable);
    terminal = std::make_unique<Terminal>(commandLine(kind, home));
    waitForPrompt();
}

void InteractiveShell::waitForPrompt() {
    if (!terminal->waitFor(kPrompt)) throw std::runtime_error("no prompt: " + terminal->printed());
}

Words InteractiveShell::recorded() {
    if (!terminal->waitFor("recorded:")) throw std::runtime_error("no record: " + screen());
    const size_t begin = screen().rfind("recorded:");
    if (!terminal->waitFor(kEndOfRecord)) throw std::runtime_error("no record: " + screen());
    const size_t end = screen().find(kEndOfRecord, begin);
    waitForPrompt();
    return wordsOf(screen().substr(begin, end - begin));
}

void InteractiveShell::run(const std::string& command) {
    terminal->type(command + '\r');
    waitForPrompt();
}

Words InteractiveShell::wordsAfter(const std::string& keys) {
    terminal->type(recordLine(keys));
    return recorded();
}

Words InteractiveShell::candidatesFor(const std::string& line) {
    terminal->type(kind.recordCandidates(line));
    Words words = recorded();
    words.erase(words.begin(), words.begin() + static_cast<ptrdiff_t>(completeWords(line)));
    std::sort(words.begin(), words.end());
    return words;
}

Words InteractiveShell::endLine() {
    terminal->type(recordLine(""));
    return recorded();
}
