// Medians and percentiles.
#pragma once

#include <vector>

// Of values in any order; 0 of none. fraction is from 0 to 1.
[[nodiscard]] double percentile(std::vector<double> values, double fraction);

[[nodiscard]] inline double median(std::vector<double> values) {
    return percentile(static_cast<std::vector<double>&&>(values), 0.5);
}
