// The event on which a read waits for its recall. A thin owner of the
// platform's ZxEventH; kept inline so that the framework library itself does
// not depend on the platform library.
#pragma once
#include <new>
#include "platform/ZxEventH.h"

class ZxEvent {
public:
    explicit ZxEvent(bool manualReset) : m_event(new ZxEventH(manualReset)) {
        if (!m_event) throw "Not enough memory to initialize ZxEvent";
    }
    ~ZxEvent() { delete m_event; }
    ZxEvent(const ZxEvent&) = delete;
    ZxEvent& operator=(const ZxEvent&) = delete;

    // Milliseconds; true when the event was set, false when the time ran out.
    bool wait(unsigned long timeout) { return m_event->wait(timeout); }
    void set() { m_event->set(); }
    void reset() { m_event->reset(); }

private:
    ZxEventH* m_event;
};
