#include "store/link_gauge.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace zxblk {

void LinkGauge::replied(double sent, double first, uint64_t mark, uint64_t bytes, double now) {
    const uint64_t since = arrivedSoFar() - mark;
    if (!(first >= sent) || !(now >= first)) return;  // clocks that disagree tell nothing
    const double flowing = now - first;
    const double rate = bytes >= kSampleBytes && flowing > 0 ? static_cast<double>(since) / flowing : 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    forget(now);
    m_samples.push_back({now, first - sent, rate});
}

void LinkGauge::forget(double now) {
    while (!m_samples.empty() && m_samples.front().at < now - kWindowSeconds) m_samples.pop_front();
}

LinkGauge::Figures LinkGauge::figures() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    Figures f;
    if (m_samples.empty()) return f;
    f.rttSeconds = m_samples.front().rtt;
    std::vector<double> rates;
    for (const Sample& s : m_samples) {
        f.rttSeconds = std::min(f.rttSeconds, s.rtt);
        if (s.rate > 0) rates.push_back(s.rate);
    }
    if (!rates.empty()) {
        auto middle = rates.begin() + static_cast<std::ptrdiff_t>(rates.size() / 2);
        std::nth_element(rates.begin(), middle, rates.end());
        f.bytesPerSecond = *middle;
    }
    if (!f.bytesPerSecond) return f;
    const double wanted = 2 * f.rttSeconds * f.bytesPerSecond;
    f.inFlight = static_cast<uint64_t>(std::min<double>(kMost, std::max<double>(kLeast, std::ceil(wanted))));
    return f;
}

}  // namespace zxblk
