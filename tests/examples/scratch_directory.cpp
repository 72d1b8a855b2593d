#include "tests/examples/scratch_directory.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

ScratchDirectory::ScratchDirectory() {
    std::string name = std::filesystem::temp_directory_path() / "exampleXXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    directory = name;
}

ScratchDirectory::~ScratchDirectory() {
    std::filesystem::remove_all(directory);
}

std::string ScratchDirectory::content(std::string_view name) const {
    std::ifstream file(directory / name, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void ScratchDirectory::write(std::string_view name, std::string_view content) const {
    std::ofstream(directory / name, std::ios::binary) << content;
}
