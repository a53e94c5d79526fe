// Folds a burst of repeated events into at most one log line per interval, so that a peer that
// makes the same failure happen thousands of times a second cannot flood the log. The first event
// is reported at once; the ones that follow within the interval are counted and reported with the
// next event after it.
#pragma once

#include <chrono>

class LogThrottle {
  public:
    using Clock = std::chrono::steady_clock;

    explicit LogThrottle(Clock::duration interval) : m_interval(interval) {}

    // Counts one event at `now`. Returns how many events a line written now stands for (this one
    // and those folded since the last line), or 0 when this one is folded into a later line.
    int Note(Clock::time_point now) {
        ++m_pending;
        if (m_reported && now - m_lastLine < m_interval) {
            return 0;
        }
        m_reported = true;
        m_lastLine = now;
        int count = m_pending;
        m_pending = 0;
        return count;
    }

  private:
    Clock::duration m_interval;
    Clock::time_point m_lastLine;
    bool m_reported = false;
    int m_pending = 0;
};
