#include "nkrhost/tempfit.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <sstream>

namespace nkrhost {
namespace {

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

std::vector<std::string> splitCsv(const std::string& line)
{
    std::vector<std::string> cells;
    std::string cell;
    bool quoted = false;
    for (char c : line) {
        if (c == '"') {
            quoted = !quoted;
        } else if (c == ',' && !quoted) {
            cells.push_back(cell);
            cell.clear();
        } else if (c != '\r') {
            cell += c;
        }
    }
    cells.push_back(cell);
    for (std::string& s : cells) {
        const auto first = s.find_first_not_of(" \t");
        const auto last = s.find_last_not_of(" \t");
        s = first == std::string::npos ? std::string() : s.substr(first, last - first + 1);
    }
    return cells;
}

bool number(const std::string& text, double& out)
{
    if (text.empty()) return false;
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return end == text.c_str() + text.size() && std::isfinite(out);
}

std::string lowerText(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::vector<std::string> lowered(std::vector<std::string> cells)
{
    for (std::string& c : cells) c = lowerText(c);
    return cells;
}

// A header cell naming one of the columns, in any case, with its unit in a
// suffix or none: "temperature_c", "Temperature (°C)", "POSITION [steps]".
bool isColumn(const std::string& cell, std::initializer_list<const char*> names, std::initializer_list<const char*> units)
{
    const std::string text = lowerText(cell);
    std::size_t letters = 0;
    while (letters < text.size() && std::isalpha(static_cast<unsigned char>(text[letters]))) ++letters;
    std::string unit;
    for (std::size_t i = letters; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (std::isalnum(c)) unit += static_cast<char>(c);  // separators, brackets and the degree sign drop out
    }
    const std::string name = text.substr(0, letters);
    return std::any_of(names.begin(), names.end(), [&](const char* n) { return name == n; }) &&
           std::any_of(units.begin(), units.end(), [&](const char* u) { return unit == u; });
}

std::string fmt(const char* format, double v)
{
    char text[64];
    std::snprintf(text, sizeof text, format, v);
    return text;
}

}  // namespace

Status fitTemperature(const std::vector<FitRow>& rows, TempFit& out)
{
    out = {};
    const std::size_t n = rows.size();
    if (n < 3) return Status::failure(kBadSetting, "a fit needs at least 3 focus runs (got " + std::to_string(n) + ")");
    double tMin = rows[0].temperature, tMax = rows[0].temperature;
    for (const FitRow& r : rows) tMin = std::min(tMin, r.temperature), tMax = std::max(tMax, r.temperature);
    if (tMax - tMin < 0.5)
        return Status::failure(kBadSetting, "the focus runs span only " + fmt("%.2f", tMax - tMin) +
                                                " \u00B0C; a fit needs runs at temperatures at least 0.5 \u00B0C apart");

    // Theil-Sen: wild rows cannot move the median slope much.
    std::vector<double> slopes;
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = i + 1; j < n; ++j) {
            const double dt = rows[j].temperature - rows[i].temperature;
            if (std::abs(dt) > 1e-9) slopes.push_back((rows[j].position - rows[i].position) / dt);
        }
    const double slope = median(slopes);
    std::vector<double> offsets, residuals;
    for (const FitRow& r : rows) offsets.push_back(r.position - slope * r.temperature);
    const double intercept = median(offsets);
    for (const FitRow& r : rows) residuals.push_back(std::abs(r.position - (intercept + slope * r.temperature)));
    // 1.4826 * MAD estimates the standard deviation of normal noise; a floor
    // keeps perfect data from rejecting rows over rounding.
    const double sigma = std::max(1.4826 * median(residuals), 1.0);

    out.kept.assign(n, false);
    double st = 0, sp = 0;
    for (std::size_t i = 0; i < n; ++i)
        if (residuals[i] <= 3.5 * sigma) {
            out.kept[i] = true;
            ++out.used;
            st += rows[i].temperature;
            sp += rows[i].position;
        }
    out.rejected = static_cast<int>(n) - out.used;
    if (out.used < 3) return Status::failure(kBadSetting, "too few focus runs agree with each other for a fit");
    const double mt = st / out.used, mp = sp / out.used;
    double stt = 0, stp = 0, spp = 0;
    for (std::size_t i = 0; i < n; ++i)
        if (out.kept[i]) {
            const double dt = rows[i].temperature - mt, dp = rows[i].position - mp;
            stt += dt * dt;
            stp += dt * dp;
            spp += dp * dp;
        }
    if (stt <= 0) return Status::failure(kBadSetting, "the focus runs kept are all at one temperature");
    out.coefficient = stp / stt;
    out.intercept = mp - out.coefficient * mt;
    out.r2 = spp > 0 ? (stp * stp) / (stt * spp) : 1.0;
    return {};
}

Status readFitCsv(const std::string& path, std::vector<FitRow>& rows, int& badLines)
{
    rows.clear();
    badLines = 0;
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        return Status::failure(kBadSetting, path + " is a folder; give the CSV file of focus runs in it");
    std::ifstream in(path);
    if (!in) return Status::failure(kBadSetting, "cannot read " + path);
    std::string line;
    std::vector<std::string> header;
    int tCol = -1, pCol = -1;
    for (bool first = true; std::getline(in, line); first = false) {
        if (first && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);  // a spreadsheet's byte order mark
        const auto text = line.find_first_not_of(" \t\r");
        if (text == std::string::npos || line[text] == '#') continue;
        const auto cells = splitCsv(line);
        if (header.empty()) {
            for (std::size_t i = 0; i < cells.size(); ++i) {
                if (tCol < 0 && isColumn(cells[i], {"temperature", "temp"}, {"", "c", "degc", "celsius"}))
                    tCol = static_cast<int>(i);
                if (pCol < 0 && isColumn(cells[i], {"position", "pos"}, {"", "steps", "step"}))
                    pCol = static_cast<int>(i);
            }
            if (tCol < 0 || pCol < 0)
                return Status::failure(kBadSetting, path + " has no header line naming the columns temperature_c "
                                                           "(degrees Celsius) and position (steps); its first line is: " +
                                                           line.substr(0, 120));
            header = cells;
            continue;
        }
        if (lowered(cells) == lowered(header)) continue;  // files joined one after another repeat their header
        FitRow r;
        if (static_cast<std::size_t>(std::max(tCol, pCol)) >= cells.size() ||
            !number(cells[static_cast<std::size_t>(tCol)], r.temperature) ||
            !number(cells[static_cast<std::size_t>(pCol)], r.position)) {
            ++badLines;
            continue;
        }
        rows.push_back(r);
    }
    if (header.empty()) return Status::failure(kBadSetting, path + " is empty");
    return {};
}

std::string fitPlotSvg(const std::vector<FitRow>& rows, const TempFit& fit)
{
    const double W = 640, H = 400, L = 70, R = 20, T = 30, B = 50;
    double tMin = 1e300, tMax = -1e300, pMin = 1e300, pMax = -1e300;
    for (const FitRow& r : rows) {
        tMin = std::min(tMin, r.temperature), tMax = std::max(tMax, r.temperature);
        pMin = std::min(pMin, r.position), pMax = std::max(pMax, r.position);
    }
    if (rows.empty()) tMin = 0, tMax = 1, pMin = 0, pMax = 1;
    if (tMax - tMin < 1e-9) tMax = tMin + 1;
    if (pMax - pMin < 1e-9) pMax = pMin + 1;
    auto x = [&](double t) { return L + (t - tMin) / (tMax - tMin) * (W - L - R); };
    auto y = [&](double p) { return H - B - (p - pMin) / (pMax - pMin) * (H - T - B); };
    std::ostringstream s;
    s << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << W << "\" height=\"" << H
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << L << "\" y=\"18\">best focus against temperature: " << fmt("%+.2f", fit.coefficient)
      << " steps/\u00B0C, R\u00B2 " << fmt("%.3f", fit.r2) << ", " << fit.used << " runs used, " << fit.rejected
      << " rejected</text>\n"
      << "<line x1=\"" << L << "\" y1=\"" << H - B << "\" x2=\"" << W - R << "\" y2=\"" << H - B << "\" stroke=\"black\"/>\n"
      << "<line x1=\"" << L << "\" y1=\"" << T << "\" x2=\"" << L << "\" y2=\"" << H - B << "\" stroke=\"black\"/>\n"
      << "<text x=\"" << (L + W - R) / 2 << "\" y=\"" << H - 12 << "\" text-anchor=\"middle\">temperature (\u00B0C)</text>\n"
      << "<text x=\"16\" y=\"" << (T + H - B) / 2 << "\" transform=\"rotate(-90 16 " << (T + H - B) / 2
      << ")\" text-anchor=\"middle\">position (steps)</text>\n";
    for (int k = 0; k <= 4; ++k) {
        const double t = tMin + (tMax - tMin) * k / 4, p = pMin + (pMax - pMin) * k / 4;
        s << "<text x=\"" << x(t) << "\" y=\"" << H - B + 16 << "\" text-anchor=\"middle\">" << fmt("%.1f", t) << "</text>\n"
          << "<text x=\"" << L - 6 << "\" y=\"" << y(p) + 4 << "\" text-anchor=\"end\">" << fmt("%.0f", p) << "</text>\n";
    }
    s << "<line x1=\"" << x(tMin) << "\" y1=\"" << y(fit.intercept + fit.coefficient * tMin) << "\" x2=\"" << x(tMax)
      << "\" y2=\"" << y(fit.intercept + fit.coefficient * tMax) << "\" stroke=\"#1f6fb4\" stroke-width=\"2\"/>\n";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const bool kept = i < fit.kept.size() && fit.kept[i];
        s << "<circle cx=\"" << x(rows[i].temperature) << "\" cy=\"" << y(rows[i].position) << "\" r=\"4\" fill=\""
          << (kept ? "#333333" : "none") << "\" stroke=\"" << (kept ? "#333333" : "#d0342c") << "\"/>\n";
    }
    s << "</svg>\n";
    return s.str();
}

std::string fitPlotText(const std::vector<FitRow>& rows, const TempFit& fit, int width, int height)
{
    width = std::max(width, 10);
    height = std::max(height, 4);
    double tMin = 1e300, tMax = -1e300, pMin = 1e300, pMax = -1e300;
    for (const FitRow& r : rows) {
        tMin = std::min(tMin, r.temperature), tMax = std::max(tMax, r.temperature);
        pMin = std::min(pMin, r.position), pMax = std::max(pMax, r.position);
    }
    if (rows.empty()) return "";
    if (tMax - tMin < 1e-9) tMax = tMin + 1;
    if (pMax - pMin < 1e-9) pMax = pMin + 1;
    std::vector<std::string> grid(static_cast<std::size_t>(height), std::string(static_cast<std::size_t>(width), ' '));
    auto put = [&](double t, double p, char c) {
        const int col = static_cast<int>(std::lround((t - tMin) / (tMax - tMin) * (width - 1)));
        const int row = height - 1 - static_cast<int>(std::lround((p - pMin) / (pMax - pMin) * (height - 1)));
        if (col < 0 || col >= width || row < 0 || row >= height) return;
        char& cell = grid[static_cast<std::size_t>(row)][static_cast<std::size_t>(col)];
        if (cell == ' ' || c != '.') cell = c;
    };
    for (int col = 0; col < width; ++col) {
        const double t = tMin + (tMax - tMin) * col / (width - 1);
        put(t, fit.intercept + fit.coefficient * t, '.');
    }
    for (std::size_t i = 0; i < rows.size(); ++i)
        put(rows[i].temperature, rows[i].position, i < fit.kept.size() && fit.kept[i] ? '*' : 'x');
    std::ostringstream s;
    const std::string top = fmt("%.0f", pMax), bottom = fmt("%.0f", pMin);
    const std::size_t pad = std::max(top.size(), bottom.size());
    for (int row = 0; row < height; ++row) {
        std::string label = row == 0 ? top : (row == height - 1 ? bottom : "");
        s << std::string(pad - label.size(), ' ') << label << " |" << grid[static_cast<std::size_t>(row)] << "\n";
    }
    s << std::string(pad, ' ') << " +" << std::string(static_cast<std::size_t>(width), '-') << "\n";
    const std::string left = fmt("%.1f", tMin), right = fmt("%.1f \u00B0C", tMax);
    s << std::string(pad + 2, ' ') << left
      << std::string(static_cast<std::size_t>(std::max(1, width - static_cast<int>(left.size()) - 6)), ' ') << right << "\n";
    return s.str();
}

}  // namespace nkrhost
