#include "bench/support/figures.h"

#include <algorithm>
#include <cmath>

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return 0;
    const auto last = static_cast<double>(values.size() - 1);
    const auto place = values.begin() + std::lround(fraction * last);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}
