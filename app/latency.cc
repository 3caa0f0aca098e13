// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/latency.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "app/table.h"

namespace app {
namespace {

template <class... Arguments>
std::string text(const char* format, Arguments... arguments) {
    char buffer[512];
    std::snprintf(buffer, sizeof buffer, format, arguments...);
    return buffer;
}

/* The upper ends of the classes, ten to the decade, each a quarter above the one before. */
Duration class_end(std::size_t number) {
    constexpr Duration steps[] = {100, 125, 160, 200, 250, 320, 400, 500, 630, 800};
    Duration end = steps[number % std::size(steps)];
    for (std::size_t i = 0; i < number / std::size(steps); ++i)
        end *= 10;
    return end;
}

std::size_t class_of(Duration duration) {
    std::size_t number = 0;
    while (class_end(number) < duration)
        ++number;
    return number;
}

/* Sorted, and empty ones left out. */
std::vector<Latencies> sorted(std::vector<Latencies> all) {
    std::erase_if(all, [](const Latencies& row) { return row.durations.empty(); });
    for (Latencies& row : all)
        std::ranges::sort(row.durations);
    return all;
}

// The plot's frame, in its own units.
constexpr double left = 90, right = 720, top = 50, bottom = 380;
constexpr const char* colours[] = {"#1b6ca8", "#c2571a", "#3c8d40", "#7a4b9a"};

/* Across: the number of nines in the share that was done. */
double across(double share, double nines) {
    const double done = std::min(-std::log10(1 - std::min(share, 1 - 1e-12)), nines);
    return left + (right - left) * done / nines;
}

double upwards(Duration duration, Duration highest) {
    return bottom - (bottom - top) * static_cast<double>(duration) / static_cast<double>(highest);
}

std::string plot_axes(double nines, Duration highest) {
    std::string result;
    for (int i = 0; i <= 4; ++i) {
        const Duration value = highest * static_cast<Duration>(i) / 4;
        const double y = upwards(value, highest);
        result += text(
            "<line class='grid' x1='%.0f' x2='%.0f' y1='%.1f' y2='%.1f'/>"
            "<text x='%.0f' y='%.1f' text-anchor='end'>%s</text>\n",
            left, right, y, y, left - 8, y + 4, format_duration(value).c_str());
    }
    constexpr struct {
        double share;
        const char* name;
    } marks[] = {{0, "0"},       {0.5, "50 %"},     {0.9, "90 %"},
                 {0.99, "99 %"}, {0.999, "99.9 %"}, {0.9999, "99.99 %"}};
    for (const auto& mark : marks)
        if (-std::log10(1 - mark.share) <= nines + 1e-9)
            result += text(
                "<line class='grid' x1='%.1f' x2='%.1f' y1='%.0f' y2='%.0f'/>"
                "<text x='%.1f' y='%.0f' text-anchor='middle'>%s</text>\n",
                across(mark.share, nines), across(mark.share, nines), top, bottom,
                across(mark.share, nines), bottom + 20, mark.name);
    return result;
}

std::string plot_curve(const Latencies& row, const char* colour, double nines, Duration highest) {
    std::string points;
    const double all = static_cast<double>(row.durations.size());
    for (std::size_t i = 0; i < row.durations.size(); ++i) {
        // Of equal ones in a row the corners are enough.
        const bool corner = i == 0 || i + 1 == row.durations.size() ||
                            row.durations[i] != row.durations[i - 1] ||
                            row.durations[i] != row.durations[i + 1];
        if (corner)
            points += text("%.1f,%.1f ", across(static_cast<double>(i) / all, nines),
                           upwards(row.durations[i], highest));
    }
    points += text("%.1f,%.1f", right, upwards(row.durations.back(), highest));
    return text("<polyline stroke='%s' points='", colour) + points + "'/>\n";
}

}  // namespace

Quantiles Latencies::quantiles() const {
    std::vector<Duration> ordered = durations;
    std::ranges::sort(ordered);
    const auto at = [&](double share) {
        const auto rank =
            static_cast<std::size_t>(std::ceil(share * static_cast<double>(ordered.size())));
        return ordered[std::max<std::size_t>(rank, 1) - 1];
    };
    if (ordered.empty())
        return {};
    return {ordered.size(), at(0.5), at(0.9), at(0.99), ordered.back()};
}

std::string format_duration(Duration duration) {
    constexpr struct {
        double size;
        const char* name;
    } units[] = {{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}};
    for (const auto& unit : units)
        if (const double value = static_cast<double>(duration) / unit.size; value >= 0.9995)
            return text(value < 9.995   ? "%.2f %s"
                        : value < 99.95 ? "%.1f %s"
                                        : "%.0f %s",
                        value, unit.name);
    return std::to_string(duration) + (duration ? " ns" : "");
}

std::string format_latencies(const std::vector<Latencies>& all, std::size_t width) {
    Table table{{{"latency"}, {"p50", 'r'}, {"p90", 'r', 2}, {"p99", 'r', 1}, {"max", 'r'}}, {}};
    for (const Latencies& row : all)
        if (const Quantiles q = row.quantiles(); q.count > 0)
            table.rows.push_back({row.name, format_duration(q.p50), format_duration(q.p90),
                                  format_duration(q.p99), format_duration(q.most)});
    return table.rows.empty() ? "" : table.format(width);
}

std::string format_histogram(const Latencies& latencies, std::size_t width) {
    if (latencies.durations.empty())
        return {};
    std::vector<std::size_t> counts;
    for (const Duration duration : latencies.durations) {
        const std::size_t number = class_of(duration);
        counts.resize(std::max(counts.size(), number + 1));
        ++counts[number];
    }
    const auto first = std::ranges::find_if(counts, [](std::size_t n) { return n > 0; });
    const std::size_t most = std::ranges::max(counts);
    constexpr std::size_t taken = 26;  // by all but the bar
    const std::size_t longest = std::max<std::size_t>((width ? width : 80), taken + 8) - taken;
    Table table{{{latencies.name}, {"", 'r'}, {""}}, {}};
    for (auto i = static_cast<std::size_t>(first - counts.begin()); i < counts.size(); ++i) {
        std::string bar;
        for (std::size_t n = 0; n < (counts[i] * longest + most - 1) / most; ++n)
            bar += "█";
        table.rows.push_back(
            {"up to " + format_duration(class_end(i)), std::to_string(counts[i]), bar});
    }
    return table.format(0);
}

std::string plot_latencies(const std::vector<Latencies>& all) {
    const std::vector<Latencies> rows = sorted(all);
    Duration highest = 1;
    std::size_t most = 1;
    for (const Latencies& row : rows) {
        highest = std::max(highest, row.durations.back());
        most = std::max(most, row.durations.size());
    }
    // A round number at the top, and as many nines as there are durations to tell them apart.
    highest = class_end(class_of(highest));
    const double nines = std::max(1.0, std::log10(static_cast<double>(most)));
    std::string result =
        "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 760 430' width='760' height='430'>\n"
        "<style>text{font:13px sans-serif;fill:#333}.grid{stroke:#ddd}"
        "polyline{fill:none;stroke-width:2}</style>\n"
        "<rect width='760' height='430' fill='white'/>\n" +
        plot_axes(nines, highest);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const char* const colour = colours[i % std::size(colours)];
        const double x = left + static_cast<double>(i) * 165;
        result += plot_curve(rows[i], colour, nines, highest) +
                  text(
                      "<rect x='%.0f' y='16' width='12' height='12' fill='%s'/>"
                      "<text x='%.0f' y='27'>%s</text>\n",
                      x, colour, x + 18, rows[i].name);
    }
    return result + text(
                        "<text x='%.0f' y='%.0f' text-anchor='middle'>share that took no longer"
                        "</text>\n</svg>\n",
                        (left + right) / 2, bottom + 42);
}

}  // namespace app
