// A shell at its prompt, in a pseudo-terminal, that completes hxusbvctl's command line. What it
// makes of the keys is told by the shell itself: it runs the line with a command in front that
// prints its arguments.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/terminal.h"

using Words = std::vector<std::string>;

struct ShellKind {
    const char* name;
    const char* startFile;   // below the home directory
    const char* startText;   // what makes the shell ready, in front of its prompt
    Words options;           // $HOME is the home directory
    const char* listKeys;    // have the candidates listed
    const char* listAtOnce;  // has one Tab insert what candidates have in common and list them

    // What has the candidates of a line recorded, as keys.
    std::string (*recordCandidates)(const std::string& line);
};

[[nodiscard]] const std::vector<ShellKind>& shellKinds();

void PrintTo(const ShellKind& kind, std::ostream* out);  // the name that GoogleTest looks for

class InteractiveShell {
public:
    // At its prompt, with HOME at home, where it leaves files.
    InteractiveShell(const ShellKind& kind, const std::filesystem::path& home);

    void run(const std::string& command);

    // The words of the command line after the keys. The line is gone afterwards.
    [[nodiscard]] Words wordsAfter(const std::string& keys);

    // What may stand for the last word of the line, sorted.
    [[nodiscard]] Words candidatesFor(const std::string& line);

    // These do not wait for what comes of it.
    void type(const std::string& keys) const { terminal->type(keys); }
    void list(const std::string& line) const { type(line + kind.listKeys); }

    // The words of what stands in the line, which is gone afterwards.
    [[nodiscard]] Words endLine();

    [[nodiscard]] bool shows(const std::string& text) { return terminal->waitFor(text); }
    [[nodiscard]] const std::string& screen() const { return terminal->printed(); }

private:
    Words recorded();
    void waitForPrompt();

    const ShellKind& kind;
    std::unique_ptr<Terminal> terminal;
};
