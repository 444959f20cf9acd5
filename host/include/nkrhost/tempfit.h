// Learning the temperature coefficient from focus runs: one row per run,
// the temperature and the best focus position found at it. The fit is not
// dragged by a few wild rows: a Theil-Sen line (the median of the slopes of
// all pairs) finds them, rows further than 3.5 robust standard deviations
// from it are rejected, and a least-squares line through the rest gives the
// coefficient and R^2.
#pragma once

#include <string>
#include <vector>

#include "nkrhost/errors.h"

namespace nkrhost {

struct FitRow {
    double temperature = 0;  // degrees Celsius
    double position = 0;     // steps
};

struct TempFit {
    double coefficient = 0;  // steps per degree Celsius
    double intercept = 0;    // position at 0 degrees
    double r2 = 0;           // of the rows used
    int used = 0;
    int rejected = 0;
    std::vector<bool> kept;  // per row: used (true) or rejected
};

// Needs at least three rows over at least 0.5 degrees.
Status fitTemperature(const std::vector<FitRow>& rows, TempFit& out);

// Rows of a CSV file with the columns temperature_c and position: a header
// line names them, in any case and with the unit as a suffix or none
// ("Temperature_C", "temperature (°C)", "Position [steps]"); other columns
// are ignored; blank lines, lines starting with # and the header repeated
// (files joined together) are skipped. badLines counts the other lines whose
// two values are not numbers.
Status readFitCsv(const std::string& path, std::vector<FitRow>& rows, int& badLines);

// The runs and the fitted line as an SVG document, and as a small plot of
// text for a terminal (width x height characters; '*' used, 'x' rejected,
// '.' the line).
std::string fitPlotSvg(const std::vector<FitRow>& rows, const TempFit& fit);
std::string fitPlotText(const std::vector<FitRow>& rows, const TempFit& fit, int width = 60, int height = 16);

}  // namespace nkrhost
