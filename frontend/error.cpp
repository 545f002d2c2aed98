#include "frontend/error.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <numeric>
#include <utility>

namespace frontend {

Error::Error(Exit exit, std::string problemText, std::string adviceText)
    : std::runtime_error(adviceText.empty() ? problemText : problemText + "; " + adviceText), exit(exit),
      problem(std::move(problemText)), advice(std::move(adviceText)),
      message(advice.empty() ? problem : problem + "; " + advice) // what() ends at a NUL
{}

Error::Error(const Error &cause, std::string problem, std::string advice)
    : Error(cause.exit, std::move(problem), std::move(advice))
{
    status = cause.status;
    statusName = cause.statusName;
    more = cause.more;
}

size_t EditDistance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); i++) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); j++) {
            const size_t changed = diagonal + (a[i] != b[j]);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

double ParseSeconds(const std::string &name, const std::string &text, double least)
{
    static const std::map<std::string, double> UNITS = {
        {"", 1}, {"ms", 0.001}, {"s", 1}, {"m", 60}, {"h", 3600}};
    const char *const stop = text.data() + text.size();
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), stop, number);
    const auto unit = UNITS.find(std::string(end, stop));
    const double seconds = error == std::errc() && unit != UNITS.end() ? number * unit->second : -1;
    if (!(seconds >= least) || seconds > 1e6)
        throw Error(Exit::BAD_VALUE,
                    fmt::format("{} must be a time like 500ms, 30s or 2m, not '{}'", name, text));
    return seconds;
}

}
