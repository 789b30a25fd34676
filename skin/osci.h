// SPDX-License-Identifier: GPL-3.0-or-later
// The oscilloscope: draws the sound the voice service produces as a trace line. Blocks of
// samples are queued as they arrive; ten times a second the view draws everything queued
// since the last paint, squeezed or stretched to its width, and empties the queue.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <QColor>
#include <QPolygon>
#include <QWidget>

#include "DynRgn.h"
#include "SkinParser.h"

namespace larimo {

class OSCI : public QWidget {
    Q_OBJECT

public:
    static constexpr int kRepaintIntervalMs = 100;
    /// The queue is emptied when no paint has consumed it for longer than this.
    static constexpr long long kPurgeAfterSeconds = 5;

    /// Window thread.
    OSCI(QWidget* parent, int ctrlId);
    ~OSCI() override;
    OSCI(const OSCI&) = delete;
    OSCI& operator=(const OSCI&) = delete;

    /// Queues a copy of `count` samples as one block. Any thread (the service event thread).
    void SetData(const std::int16_t* samples, std::size_t count);
    /// Drops every queued block. Any thread.
    void ClearData();
    /// Samples queued now. Any thread.
    std::size_t QueuedSamples() const;

    /// Window thread.
    bool parseSkin(CSkinParser& parser, const std::string& section, int id);
    bool ApplySkin();

    /// `samples` squeezed or stretched to `width` values, by whole multiples: each of
    /// N <= width samples repeats width / N times at that fraction of its value (the rest
    /// stays 0); for N > width, k = N / width consecutive samples are averaged into one and
    /// the last N - width * k are dropped.
    static std::vector<int> Resample(const std::vector<std::int16_t>& samples, int width);
    /// The line a value is drawn at in a view whose trace height is `traceHeight` (the client
    /// height less 2): full scale reaches the top and bottom, positive values lie below the
    /// middle.
    static int TraceY(int value, int traceHeight);
    /// The pixels a one-pixel line through `points` covers, both ends included.
    static QPolygon TracePixels(const QPolygon& points);

    int CtrlId() const { return m_ctrlId; }
    QColor BackgroundColor() const { return m_background; }
    QColor TraceColor() const { return m_trace; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void timerEvent(QTimerEvent* event) override;

private:
    int m_ctrlId;
    QColor m_background{0, 0, 0};
    QColor m_trace{0, 204, 0};
    long long m_lastPurge = 0;
    int m_timer = 0;
    QPoint m_position;
    QSize m_size;
    CDynRgn m_region;

    mutable std::mutex m_queueLock;
    std::vector<std::vector<std::int16_t>> m_queue;
};

} // namespace larimo
