// A program in a pseudo-terminal, with a test at its keyboard.
//
// Whatever does not appear within a minute counts as never: the test fails rather than hangs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The program's path, or nothing where it is not installed.
[[nodiscard]] std::string findProgram(const std::string& name);

class Terminal {
public:
    // arguments begins with the program's path; the environment is this process's own. A program
    // that cannot be run throws std::runtime_error.
    explicit Terminal(const std::vector<std::string>& arguments);
    ~Terminal();  // ends a program that was not waited for, with SIGKILL
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void type(std::string_view keys) const;

    // Waits until text has been printed, in one piece, behind what was waited for before. On false
    // nothing has been passed over.
    [[nodiscard]] bool waitFor(std::string_view text);

    void signal(int number) const;
    void hangUp();  // nothing can be typed or waited for afterwards, but the end

    // Waits until no process has the terminal open any more, nor the program runs. Its exit status,
    // or 128 + the number of the signal that ended it. Throws std::runtime_error if one stays.
    [[nodiscard]] int finish();

    // What was printed up to the last text that was waited for, control sequences included, and
    // what is known to have followed.
    [[nodiscard]] const std::string& printed() const { return seen; }

private:
    enum class Reading { kSome, kEnd, kNothing };
    Reading readOn();

    int keyboard = -1;
    int child = -1;
    std::string seen;
    size_t waitedFor = 0;  // the end in seen of what was
};
