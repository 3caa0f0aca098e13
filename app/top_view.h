// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A mounted host at a glance, made of the texts of its files `metrics` and `control`.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace app {

/// The samples of a text in the OpenMetrics format, by name and labels as they stand there. What is
/// no sample is passed over.
class Samples {
  public:
    explicit Samples(std::string_view text);
    bool empty() const { return values_.empty(); }
    /// 0 where there is none.
    double at(const std::string& sample) const;
    /// The values of the label in the samples of that name, in the order of the text.
    std::vector<std::string> labels(const std::string& name, const std::string& label) const;

  private:
    std::map<std::string, double> values_;
    std::vector<std::string> order_;
};

/// What is shown at one moment. `before` are the samples of an earlier one, or empty; `control` is
/// as much of the table as is wanted. Lines of at most `width` columns, where it is not 0, and at
/// most `height` of them.
std::string format_top(const Samples& now, const Samples& before, std::string_view control,
                       std::size_t width, std::size_t height);

}  // namespace app
