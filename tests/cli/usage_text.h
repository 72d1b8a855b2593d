// The usage text that a person must see.
#pragma once

#include <string>

// As the program shows it when its base name is name.
[[nodiscard]] std::string usageText(const std::string& name);
