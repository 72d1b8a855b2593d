// A benchmark's command line: options that take a count, and a word that chooses cases.
#pragma once

#include <initializer_list>
#include <string_view>
#include <vector>

struct CountOption {
    std::string_view name;  // with its dashes
    int* count;
};

// What the options say goes into their counts. Returns the word, which part of a case's name is, or
// an empty one, which is part of all. Anything else ends the program with status 2, and a line that
// begins with its name. Without cases no word is taken.
[[nodiscard]] std::string_view readCommandLine(const char* program, int argc, char** argv,
                                               std::initializer_list<CountOption> options,
                                               const std::vector<std::string_view>& cases);

// Of things that have one each.
template <typename Named>
[[nodiscard]] std::vector<std::string_view> namesOf(const Named& things) {
    std::vector<std::string_view> names;
    for (const auto& thing : things)
        names.emplace_back(thing.name);
    return names;
}
