#include "bench/support/command_line.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/support/counts.h"

namespace {

[[noreturn]] void refuse(const char* program, const char* why, std::string_view word) {
    std::fprintf(stderr, "%s: %s: %.*s\n", program, why, static_cast<int>(word.size()),
                 word.data());
    std::exit(2);
}

bool isPartOfAny(std::string_view word, const std::vector<std::string_view>& names) {
    return std::any_of(names.begin(), names.end(), [word](std::string_view name) {
        return name.find(word) != std::string_view::npos;
    });
}

}  // namespace

std::string_view readCommandLine(const char* program, int argc, char** argv,
                                 std::initializer_list<CountOption> options,
                                 const std::vector<std::string_view>& cases) {
    std::string_view chosen;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        const auto* option = std::find_if(options.begin(), options.end(),
                                          [word](const auto& each) { return each.name == word; });
        if (option != options.end()) {
            if (i + 1 == argc) refuse(program, "a count is missing after", word);
            *option->count = readCount(program, argv[++i]);
        } else if (word.substr(0, 1) == "-") {
            refuse(program, "unknown option", word);
        } else if (!isPartOfAny(word, cases)) {
            refuse(program, "unknown case", word);
        } else if (!chosen.empty()) {
            refuse(program, "one case too many", word);
        } else {
            chosen = word;
        }
    }
    return chosen;
}
