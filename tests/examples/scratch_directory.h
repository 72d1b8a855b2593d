// A directory of the test's own, which goes with it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

class ScratchDirectory {
public:
    ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory();

    [[nodiscard]] std::string path() const { return directory; }
    [[nodiscard]] std::string path(std::string_view name) const { return directory / name; }

    [[nodiscard]] std::string content(std::string_view name) const;
    void write(std::string_view name, std::string_view content) const;

private:
    std::filesystem::path directory;
};
