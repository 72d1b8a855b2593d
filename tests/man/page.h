// A manual page, as its source and as a person reads it.
#pragma once

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

// All of a file, which must be there.
[[nodiscard]] std::string textOf(const std::string& path);

[[nodiscard]] Lines linesOf(const std::string& text);

[[nodiscard]] std::string replaced(std::string text, const std::string& from,
                                   const std::string& to);

// What the last group of an extended regular expression matches, wherever that does.
[[nodiscard]] Lines allMatches(const std::string& text, const std::string& expression);

// Without blanks at either end.
[[nodiscard]] std::string trimmed(const std::string& line);

class Page {
public:
    explicit Page(const std::string& path);

    // The lines of the displays of a section, one display after the other, as they are shown.
    [[nodiscard]] std::vector<Lines> displays(const std::string& section) const;

    // What stands behind the macro in each of its lines, quotes removed.
    [[nodiscard]] Lines arguments(const std::string& macro) const;

    // As mandoc shows it, in lines too long to be broken, each without blanks at either end. Empty
    // where there is no mandoc.
    [[nodiscard]] Lines shown() const;

private:
    std::string path;
    Lines source;
};

// The lines of a section of a page that is shown.
[[nodiscard]] Lines sectionOf(const Lines& shown, const std::string& name);
