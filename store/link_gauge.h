// What the link to a store carries, learnt from the replies of its GETs:
// how long a request waits for its first byte (the round trip, and the
// service's own time), and how many bytes a second arrive over it. Their
// product is what must be on its way at once for the link never to idle;
// readers size what they fetch ahead from it rather than from a figure
// that suits one network and wastes memory or time on another.
//
// The round trip is the least wait of the recent replies (queueing only
// ever adds to it); the bandwidth is the median delivery rate of the
// recent ones, each measured as the bytes that every GET received from
// the first byte of a reply to its last, over that time (a link that
// passes bytes in bursts makes a few replies look far faster). Small
// replies measure the round trip only: their bytes come in too little time
// to tell a rate. Asking for twice the product keeps the measurement
// honest: a link that carries more shows it in the next replies.
#pragma once
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>

namespace zxblk {

class LinkGauge {
public:
    // Before any reply: what is asked for in flight.
    static constexpr uint64_t kUnmeasured = 8 << 20;
    // Bounds of what is asked for in flight, whatever the link: a few MiB
    // keep GETs worth their round trip on a fast link, and a link that
    // would want more than this is left for memory's sake.
    static constexpr uint64_t kLeast = 2 << 20, kMost = 16 << 20;
    // Replies older than this are forgotten: a link changes.
    static constexpr double kWindowSeconds = 10.0;
    // The least body of a reply that measures the bandwidth.
    static constexpr uint64_t kSampleBytes = 256 << 10;

    // Bytes of a GET's body arrived, whichever GET's: they are counted as
    // they come, so that a reply's rate is that of the whole link.
    void arrived(uint64_t bytes) { m_arrived.fetch_add(bytes, std::memory_order_relaxed); }
    uint64_t arrivedSoFar() const { return m_arrived.load(std::memory_order_relaxed); }
    // A GET sent at `sent` (seconds on a steady clock) got the first of its
    // `bytes` at `first`, when arrivedSoFar() was `mark`, and the last by `now`.
    void replied(double sent, double first, uint64_t mark, uint64_t bytes, double now);

    struct Figures {
        double rttSeconds = 0;      // 0: no reply yet
        double bytesPerSecond = 0;  // 0: no reply large enough yet
        uint64_t inFlight = kUnmeasured;  // what readers keep on its way
    };
    Figures figures() const;

private:
    struct Sample {
        double at, rtt, rate;  // rate 0: a small reply
    };
    std::atomic<uint64_t> m_arrived{0};  // body bytes of every GET so far
    mutable std::mutex m_mutex;
    std::deque<Sample> m_samples;  // oldest first, at most kWindowSeconds old
    void forget(double now);
};

}  // namespace zxblk
