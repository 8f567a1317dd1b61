// What the link gauge makes of replies, against figures worked out by hand:
// the round trip is the least wait for a first byte, the bandwidth the best
// delivery rate (every GET's bytes delivered while one was on its way, over
// its time since its first byte), and what readers keep in flight twice
// their product, within bounds.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "store/link_gauge.h"

namespace {

using zxblk::LinkGauge;
constexpr double MiB = 1 << 20;

struct Get {
    double sent, firstByte, ended;  // seconds
    uint64_t bytes;
};

TEST(LinkGauge, RoundTripBandwidthAndWhatIsKeptInFlight) {
    struct Case {
        const char* what;
        std::vector<Get> gets;  // sent in this order, replies in `ended` order
        double rtt, bytesPerSecond;
        uint64_t inFlight;
    } cases[] = {
        {"no reply yet", {}, 0, 0, LinkGauge::kUnmeasured},
        // 64 KiB: a round trip, and no rate.
        {"a small reply", {{0, 0.020, 0.0201, 64 << 10}}, 0.020, 0, LinkGauge::kUnmeasured},
        // 2 MiB in the 20 ms after the first byte: 100 MiB/s; 2 x 0.02 x 100 MiB = 4 MiB.
        {"one GET", {{0, 0.020, 0.040, 2 << 20}}, 0.020, 100 * MiB, 4 << 20},
        // Two 4 MiB GETs share the link: 8 MiB came in each one's 40 ms.
        {"two at once", {{0, 0.020, 0.060, 4 << 20}, {0, 0.020, 0.060, 4 << 20}}, 0.020, 8 * MiB / 0.040,
         static_cast<uint64_t>(2 * 0.020 * 8 * MiB / 0.040)},
        // One waited 60 ms behind others: the least wait is the round trip.
        {"one held up", {{0, 0.060, 0.080, 2 << 20}, {0.1, 0.120, 0.140, 2 << 20}}, 0.020, 100 * MiB, 4 << 20},
        // 100 ms away at 1 GiB/s wants 200 MiB in flight: held to the most.
        {"long fat link", {{0, 0.100, 0.1625, 64 << 20}}, 0.100, 1024 * MiB, LinkGauge::kMost},
        // A fast reply of long ago is forgotten once the window has passed:
        // 1 MiB in 50 ms, 50 ms away, wants 2 MiB.
        {"old replies forgotten", {{0, 0.001, 0.002, 4 << 20}, {20, 20.050, 20.100, 1 << 20}}, 0.050, 20 * MiB,
         LinkGauge::kLeast},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // Each GET's bytes come in 16 equal pieces from its first byte on,
        // the last a sixteenth before it ends; everything in the order of
        // the clock, a piece before an end at the same time.
        struct Event {
            double at;
            int order;  // 0 a piece, 1 an end
            size_t get;
        };
        std::vector<Event> events;
        for (size_t i = 0; i < c.gets.size(); ++i) {
            const Get& g = c.gets[i];
            for (int k = 0; k < 16; ++k) events.push_back({g.firstByte + k * (g.ended - g.firstByte) / 16, 0, i});
            events.push_back({g.ended, 1, i});
        }
        std::stable_sort(events.begin(), events.end(),
                         [](const Event& a, const Event& b) { return a.at != b.at ? a.at < b.at : a.order < b.order; });
        LinkGauge gauge;
        std::vector<uint64_t> marks(c.gets.size(), UINT64_MAX);
        for (const Event& e : events) {
            const Get& g = c.gets[e.get];
            if (e.order == 1) {
                gauge.replied(g.sent, g.firstByte, marks[e.get], g.bytes, g.ended);
                continue;
            }
            if (marks[e.get] == UINT64_MAX) marks[e.get] = gauge.arrivedSoFar();
            gauge.arrived(g.bytes / 16);
        }
        const LinkGauge::Figures f = gauge.figures();
        EXPECT_NEAR(f.rttSeconds, c.rtt, 1e-9);
        EXPECT_NEAR(f.bytesPerSecond, c.bytesPerSecond, 1e-3 * MiB);
        EXPECT_NEAR(static_cast<double>(f.inFlight), static_cast<double>(c.inFlight), 2);
    }
}

}  // namespace
