// Temperature: the status word is either a scaled temperature or, on older
// firmware, a raw 10-bit reading across a thermistor divider.
#include "NKR.h"
#include "RTlist.h"

namespace {
// Converter readings outside this range are a disconnected or shorted sensor.
constexpr int kAdcLowest = 616;
constexpr int kAdcHighest = 1020;
// A scaled word at or below this is no real temperature (e.g. a zero word).
constexpr float kScaledFloor = -200.0f;
}  // namespace

int CNKR::getTemp(float* temp, bool ble)
{
    if (temp == nullptr) return NKR_ERROR_INVALID_VALUE;
    const int rc = getParams(ble);
    if (rc != NKR_SUCCESS) return rc;

    // The last-good values are shared by every caller of this device.
    CriSecLock lock(m_mutex);
    const int raw = m_iTempRaw;
    if (!m_bThermistor) {
        // The word carries (degrees + 300) * 100.
        const float t = static_cast<float>(raw) / 100.0f - 300.0f;
        if (t <= kScaledFloor) {
            *temp = fLastTemp;
            return NKR_ERROR_GENERAL;
        }
        *temp = t;
        fLastTemp = t;
        return NKR_SUCCESS;
    }

    if (raw < kAdcLowest || raw > kAdcHighest) {
        *temp = fLastTemp;
        return NKR_ERROR_GENERAL;
    }
    const float t = CalculTempuature(raw);
    *temp = t;
    fLastTemp = t;
    return NKR_SUCCESS;
}

float CNKR::CalculTempuature(int iAdc)
{
    // Thermistor resistance in kilo-ohms under a 10 kilo-ohm series resistor.
    // A reading of 1024 divides by zero and gives infinity, which no row holds.
    const float r = static_cast<float>(iAdc * 10.0 / (1024.0 - iAdc));
    float t = 0.0f;
    if (!RTlistInterpolate(r, &t)) return fLastTableTemp;
    if (t < static_cast<float>(m_iTempMin) || t > static_cast<float>(m_iTempMax))
        return fLastTableTemp;
    fLastTableTemp = t;
    return t;
}
