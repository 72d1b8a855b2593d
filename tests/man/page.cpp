#include "tests/man/page.h"

#include <regex.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/captured_run.h"

namespace {

// A terminal strikes bold letters twice, and underlines by striking over.
std::string withoutOverstrikes(const std::string& text) {
    std::string plain;
    for (const char each : text) {
        if (each == '\b' && !plain.empty())
            plain.pop_back();
        else
            plain.push_back(each);
    }
    return plain;
}

bool isHeading(const std::string& line) {
    return !line.empty() && std::all_of(line.begin(), line.end(), [](unsigned char each) {
        return std::isupper(each) != 0 || each == ' ';
    });
}

}  // namespace

std::string textOf(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error("there is no " + path);
    return (std::ostringstream() << file.rdbuf()).str();
}

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

Lines allMatches(const std::string& text, const std::string& expression) {
    regex_t compiled;
    if (regcomp(&compiled, expression.c_str(), REG_EXTENDED) != 0)
        throw std::runtime_error("no regular expression: " + expression);
    Lines matches;
    std::vector<regmatch_t> groups(compiled.re_nsub + 1);
    const char* rest = text.c_str();
    while (regexec(&compiled, rest, groups.size(), groups.data(), 0) == 0) {
        const regmatch_t& last = groups.back();
        matches.emplace_back(rest + last.rm_so, rest + last.rm_eo);
        rest += groups.front().rm_eo;
    }
    regfree(&compiled);
    return matches;
}

std::string trimmed(const std::string& line) {
    const size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string::npos) return "";
    return line.substr(begin, line.find_last_not_of(" \t") + 1 - begin);
}

Page::Page(const std::string& pagePath) : path(pagePath), source(linesOf(textOf(pagePath))) {}

std::vector<Lines> Page::displays(const std::string& section) const {
    std::vector<Lines> displays;
    bool inSection = false;
    bool inDisplay = false;
    for (const std::string& line : source) {
        if (line.starts_with(".Sh ")) inSection = line == ".Sh " + section;
        if (line == ".Ed") inDisplay = false;
        if (inDisplay) {
            displays.back().push_back(replaced(replaced(line, "\\-", "-"), "\\e", "\\"));
        }
        if (inSection && line.starts_with(".Bd -literal")) {
            inDisplay = true;
            displays.emplace_back();
        }
    }
    return displays;
}

Lines Page::arguments(const std::string& macro) const {
    Lines found;
    for (const std::string& line : source) {
        if (!line.starts_with(macro + ' ')) continue;
        std::string argument = line.substr(macro.size() + 1);
        if (argument.front() == '"') argument = argument.substr(1, argument.size() - 2);
        found.push_back(replaced(argument, "\\-", "-"));
    }
    return found;
}

Lines Page::shown() const {
    const Outcome outcome =
        runProgram({"/bin/sh", "-c",
                    "command -v mandoc >/dev/null || exit 127; mandoc -T utf8 -O width=200 \"$1\"",
                    "sh", path});
    if (outcome.status == 127) return {};
    if (outcome.status != 0) throw std::runtime_error("mandoc cannot show " + path);
    Lines lines = linesOf(withoutOverstrikes(outcome.out));
    for (std::string& line : lines)
        line = trimmed(line);
    return lines;
}

Lines sectionOf(const Lines& shown, const std::string& name) {
    const auto begin = std::find(shown.begin(), shown.end(), name);
    if (begin == shown.end()) throw std::runtime_error("there is no section " + name);
    return {begin + 1, std::find_if(begin + 1, shown.end(), isHeading)};
}
